// The library's constant version record.
#pragma once

#include "vlkr.h"

namespace vlkr::frame {

extern const LibVersion kLibVersion;

}  // namespace vlkr::frame
