// The "meta" command of the quil tool.
#ifndef QUIL_TOOLS_META_H
#define QUIL_TOOLS_META_H

#include <string>
#include <utility>
#include <vector>

#include "Command.h"
#include "quil/quil.h"

namespace quil {
namespace tool {

// quil meta FILE [--json] | quil meta FILE --set KEY[:LANG]=VALUE ... -o OUT
extern const Command kMetaCommand;

// Every metadata item as "meta" lists it: (KEY[:LANG], VALUE) pairs in order.
MP4Err metadataItems(CMp4File* file, std::vector<std::pair<std::string, std::string>>* items);

// Sets the 3GPP item KEY (title, description, copyright, performer, author,
// genre, or keywords as a comma list) of one language; 2 for another key
// or a language that is not three letters.
MP4Err setMetadataItem(CMp4MetaData* meta, const std::string& key, const std::string& language,
                       const std::string& value);

}  // namespace tool
}  // namespace quil

#endif
