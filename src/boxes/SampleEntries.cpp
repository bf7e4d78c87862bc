#include "SampleEntries.h"

namespace quil {

}  // namespace quil
