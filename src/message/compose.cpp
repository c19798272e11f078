// Composition: the decoded side of a message to its raw MIME text.
#include "foundation/trace.h"
#include "message/message.h"

namespace kv {

void CMessage::MessageToRawBody() { Trace("MessageToRawBody: composition is not in this build"); }

}  // namespace kv
