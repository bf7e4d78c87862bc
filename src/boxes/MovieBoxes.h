#ifndef QUIL_BOXES_MOVIEBOXES_H
#define QUIL_BOXES_MOVIEBOXES_H

#include "Box.h"

namespace quil {

}  // namespace quil

#endif
