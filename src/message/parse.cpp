// Parsing: the raw MIME text of a message to its decoded side.
#include "foundation/trace.h"
#include "message/message.h"

namespace kv {

void CMessage::RawBodyToMessage() { Trace("RawBodyToMessage: parsing is not in this build"); }

}  // namespace kv
