#ifndef QUIL_TRACK_SAMPLETABLES_H
#define QUIL_TRACK_SAMPLETABLES_H

#include "boxes/Box.h"

namespace quil {

}  // namespace quil

#endif
