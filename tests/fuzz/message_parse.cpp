// Arbitrary bytes as the raw text of a message: the parse must finish, in
// bounded time and memory, whatever they are.
#include <cstddef>
#include <cstdint>

#include "message/message.h"
#include "shell/classes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool registered = (kv::shell::RegisterCatalogue(), true);
    (void)registered;
    if (size > 0x7FFFFFF0u) return 0;
    kv::CMessage* message = kv::CMessage::New();
    message->m_bsRawBody.assign(reinterpret_cast<const char*>(data), int32_t(size));
    message->RawBodyToMessage();
    // A second parse of the same text reuses every field.
    message->m_bHeadersOnly = true;
    message->RawBodyToMessage();
    message->Release();
    return 0;
}
