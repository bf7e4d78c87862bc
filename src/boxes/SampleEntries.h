#ifndef QUIL_BOXES_SAMPLEENTRIES_H
#define QUIL_BOXES_SAMPLEENTRIES_H

#include "Box.h"

namespace quil {

}  // namespace quil

#endif
