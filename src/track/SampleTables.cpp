#include "SampleTables.h"

namespace quil {

}  // namespace quil
