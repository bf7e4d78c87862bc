#ifndef QUIL_BOXES_CONFIGBOXES_H
#define QUIL_BOXES_CONFIGBOXES_H

#include "Box.h"

namespace quil {

}  // namespace quil

#endif
