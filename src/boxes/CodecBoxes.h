#ifndef QUIL_BOXES_CODECBOXES_H
#define QUIL_BOXES_CODECBOXES_H

#include "Box.h"

namespace quil {

}  // namespace quil

#endif
