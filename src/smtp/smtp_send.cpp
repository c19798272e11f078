// Sending: the envelope and the data stage (SendEx, RelayMessage), the
// queue file of a pickup directory (SendToQueueEx), the relay lookup and the
// host name lookup.
#include <openssl/rand.h>

#include <cstdio>
#include <cstring>

#include "automation/variant.h"
#include "codecs/address.h"
#include "foundation/dotstuff.h"
#include "foundation/trace.h"
#include "message/message.h"
#include "platform/dns_servers.h"
#include "platform/files.h"
#include "smtp/smtp.h"
#include "transport/dns.h"

namespace kv {

namespace {

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

// Pieces of the body go out at most this big, so progress shows.
constexpr int32_t kPiece = 0x10000;

bool HoldsLineBreak(const bstring& s) {
    for (int32_t i = 0; i < s.nSize; ++i)
        if (s.pData[i] == '\r' || s.pData[i] == '\n' || s.pData[i] == '\0') return true;
    return false;
}

void AppendListed(bstring& list, const bstring& address) {
    if (list.nSize > 0) list.append(", ");
    list.append(address);
}

// A new file name: a random (version 4) GUID in lower-case hexadecimal, no
// braces, and ".eml".
std::string QueueFileName() {
    unsigned char b[16] = {};
    if (RAND_bytes(b, sizeof b) != 1) {
        for (unsigned char& c : b) c = static_cast<unsigned char>(std::rand());
    }
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);
    char name[48];
    std::snprintf(name, sizeof name, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x%02x%02x.eml", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return name;
}

}  // namespace

bool BuildEnvelope(const bstring& from, const bstring& recipients, bstring& sender, std::vector<bstring>& list) {
    sender = ExtractPureAddress(from);
    std::vector<bstring> all;
    ParsePureAddresses(recipients, all);
    list.clear();
    for (bstring& a : all) {
        if (a.nSize == 0) continue;
        if (HoldsLineBreak(a)) return false;
        list.push_back(std::move(a));
    }
    return sender.nSize > 0 && !HoldsLineBreak(sender) && !list.empty();
}

void CSMTP::EnvelopeFromMessage(bstring& from, bstring& recipients) {
    if (recipients.nSize == 0) {
        bstring part;
        Message->m_wsToAddr.export_bstring(recipients, 65001);
        recipients.append(",");
        Message->m_wsCCAddr.export_bstring(part, 65001);
        recipients.append(part).append(",");
        Message->m_wsBCCAddr.export_bstring(part, 65001);
        recipients.append(part);
    }
    if (from.nSize == 0) Message->m_wsFromAddr.export_bstring(from, 65001);
}

bool CSMTP::FireStateEvent(int32_t event, std::initializer_list<VARIANT> args) {
    if (!EventsEnabled() || FireWithProceed(event, args)) return true;
    CancelByUser(kSmtpCancelled);
    return false;
}

bool CSMTP::FailSend(int32_t code, const char* reason) {
    if (Aborted && Socket.Running) {  // a progress hook said stop
        CancelByUser(kSmtpCancelled);
        return false;
    }
    IsError = true;
    ErrDesc.assign("[Error: Negative or void server response]");
    WriteLog(ErrDesc.pData, ErrDesc.nSize);
    LogResponse();
    if (!IsResponseReceived()) {
        CloseAfterNetworkFailure();
        return false;
    }
    ErrCode = code;
    if (reason) WriteLog(reason);
    ResetAfterRefusal();
    return false;
}

bool CSMTP::SendMessageData(const bstring& body, const bstring& from, const bstring& recipients) {
    AcceptedRecipients.nSize = 0;
    RefusedRecipients.nSize = 0;
    WriteLog("[Searching message for sender's and recipients' addresses]");
    auto no_envelope = [this](const char* text) {
        SetError(text, kSmtpNoEnvelope);
        ResetAfterRefusal();
        ErrCode = kSmtpNoEnvelope;
        return false;
    };
    if (recipients.nSize == 0 || from.nSize == 0) return no_envelope("[Error: No recipients and/or sender found]");
    bstring sender;
    std::vector<bstring> list;
    if (!BuildEnvelope(from, recipients, sender, list))
        return no_envelope("[Error: No valid recipients and/or sender found]");

    Phase = kSmtpAddressing;
    if (!FireStateEvent(kOnMessageReady)) return false;
    ClientRequest.assign("MAIL FROM:<").append(sender).append(">");
    if (SupportsDSN && MailFromDSN.nSize > 0) ClientRequest.append(" ").append(MailFromDSN);
    ClientRequest.append("\r\n");
    bstring line("[Sender: ");
    line.append(sender).append("]");
    WriteLog(line.pData, line.nSize);
    if (!SendAndCheck())
        return FailSend(kSmtpSenderRefused, "[Possible error reason: the sender is not allowed by this server]");

    for (size_t i = 0; i < list.size(); ++i) {
        ClientRequest.assign("RCPT TO:<").append(list[i]).append(">");
        if (SupportsDSN && RcptToDSN.nSize > 0) ClientRequest.append(" ").append(RcptToDSN);
        ClientRequest.append("\r\n");
        line.assign("[Recipient: ").append(list[i]).append("]");
        WriteLog(line.pData, line.nSize);
        if (SendAndCheck()) {
            AppendListed(AcceptedRecipients, list[i]);
            WriteLog("[The recipient was accepted]");
            continue;
        }
        AppendListed(RefusedRecipients, list[i]);
        bool nobody = i + 1 == list.size() && AcceptedRecipients.nSize == 0;
        if (!AllowRefusedRecipients || nobody || !IsResponseReceived())
            return FailSend(kSmtpRecipientRefused,
                            "[Possible error reason: the recipient is not allowed by this server]");
        LogResponse();
        WriteLog("[The recipient was refused by this server but it's allowed to continue]");
    }

    ClientRequest.assign("DATA\r\n");
    Phase = kSmtpDataCommand;
    if (!FireStateEvent(kOnSendStart)) return false;
    WriteLog("[Sending DATA command: DATA\\r\\n]");
    if (!SendAndCheck()) return FailSend(kSmtpCommandFailed);

    // The body goes out where it stands, cut at each line that starts with a
    // dot; the extra dot travels alone.
    Phase = kSmtpMessageData;
    SentData = body.pData;
    SentSize = body.nSize;
    SentCursor = SentTotal = 0;
    ClientRequest.nSize = 0;
    int32_t total = 0;
    bool cancelled = false;
    auto back_to_request = [this](bool reset_counts) {
        Socket.MorePieces = false;
        SentData = ClientRequest.pData;
        SentSize = 0;
        if (reset_counts) SentCursor = SentTotal = 0;
    };
    auto send_failed = [&]() {
        back_to_request(false);
        if (cancelled) return false;  // the cancel already ran
        if (Aborted && Socket.Running) {  // a progress hook said stop
            CancelByUser(kSmtpCancelled);
            return false;
        }
        IsError = true;
        ErrDesc.assign("[Error: Failed to send data]");
        ErrCode = Socket.LastError;
        WriteLog(ErrDesc.pData, ErrDesc.nSize);
        LogResponse();
        CloseAfterNetworkFailure();
        return false;
    };
    auto send_piece = [&](const char* piece, int32_t n) {
        WriteLog("[Sending data chunk]");
        if (!SendBytes(piece, n)) return false;
        total += n;
        if (!FireStateEvent(kOnSendProgress, {automation::MakeI4(total)})) return cancelled = true, false;
        return true;
    };
    Socket.MorePieces = true;
    if (!ForEachStuffedPiece(body.pData, body.nSize, kPiece, send_piece)) return send_failed();
    Socket.MorePieces = false;
    const bool ends_with_crlf =
        body.nSize >= 2 && body.pData[body.nSize - 2] == '\r' && body.pData[body.nSize - 1] == '\n';
    const char* final_text = ends_with_crlf ? ".\r\n" : "\r\n.\r\n";
    WriteLog("[Sending final data chunk]");
    if (!SendBytes(final_text, int32_t(std::strlen(final_text)))) return send_failed();
    total += int32_t(std::strlen(final_text));
    if (!FireStateEvent(kOnSendProgress, {automation::MakeI4(total)})) {
        back_to_request(true);
        return false;
    }
    back_to_request(true);

    Phase = kSmtpFinalReply;
    WriteLog("[Message data sent]");
    const bool accepted = ReceiveAndCheck();
    if (!accepted) FailSend(kSmtpMessageRefused);
    if (EventSource) EventSource->Fire(kOnSendComplete, {automation::MakeBool(accepted)});
    return accepted;
}

// ---- the send methods ----------------------------------------------------------------------

bool CSMTP::SendAndConclude(const bstring& body, const bstring& from, const bstring& recipients) {
    bool ok = SendMessageData(body, from, recipients);
    IsError = !ok;
    if (ok) {
        Phase = kPhaseReady;
        WriteLog("[The message has been accepted by the server for delivery]");
        ErrCode = kErrNone;
    }
    return ok;
}

HRESULT CSMTP::Send(VARIANT_BOOL* out) { return SendEx(nullptr, nullptr, out); }

HRESULT CSMTP::SendEx(BSTR fromAddr, BSTR recips, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    if (!Message) {
        IsError = true;
        ErrDesc.assign("[Error: message is empty]");
        ErrCode = kSmtpNoEnvelope;
        return S_OK;
    }
    if (!Connected && !ConnectSMTPComplete()) return S_OK;
    Phase = kSmtpPreparing;
    WriteLog("[Preparing message]");
    bstring from, recipients;
    from.assign_bstr_utf8(fromAddr);
    recipients.assign_bstr_utf8(recips);
    EnvelopeFromMessage(from, recipients);
    Message->EnsureRawBody();
    WriteLog("[Sending the message over SMTP]");
    *out = Bool(SendAndConclude(Message->m_bsRawBody, from, recipients));
    return S_OK;
}

HRESULT CSMTP::RelayMessage(BSTR filePath, BSTR fromAddr, BSTR recips, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    MailerCall call(*this);
    if (call.refused()) return S_OK;
    if (!Connected && !ConnectSMTPComplete()) return S_OK;
    Phase = kSmtpPreparing;
    WriteLog("[Reading message from file]");
    wbstring path;
    path.assign_bstr(filePath);
    bstring body;
    bool read = false;
    if (std::FILE* f = platform::OpenFile(path, "rb")) {
        // Read in one go into room for the whole file; a file that grows
        // meanwhile is read to its end all the same.
        long size = std::fseek(f, 0, SEEK_END) == 0 ? std::ftell(f) : -1;
        std::rewind(f);
        read = size >= 0 && size < 0x7FFFFFF0;
        if (read) {
            body.reserve(int32_t(size));
            body.nSize = int32_t(std::fread(body.pData, 1, size_t(size), f));
            char buffer[65536];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) body.append(buffer, int32_t(n));
            read = !std::ferror(f);
        }
        std::fclose(f);
    }
    if (!read) {
        SetError("[Error: Failed to read message file]", kSmtpFileUnreadable);
        return S_OK;
    }
    bstring from, recipients;
    from.assign_bstr_utf8(fromAddr);
    recipients.assign_bstr_utf8(recips);
    *out = Bool(SendAndConclude(body, from, recipients));
    return S_OK;
}

// ---- the queue file --------------------------------------------------------------------------

HRESULT CSMTP::SendToQueue(BSTR dirPath, VARIANT_BOOL* out) { return SendToQueueEx(dirPath, nullptr, nullptr, out); }

HRESULT CSMTP::SendToQueueEx(BSTR dirPath, BSTR fromAddr, BSTR recips, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    IsError = true;
    ErrDesc.nSize = 0;
    ClientRequest.nSize = 0;
    ServerResponse.nSize = 0;
    LogBannerOnce();
    WriteLog("[Preparing message and generating recipient list]");
    if (!Message) {
        SetError("[Error: No sender address found]", kSmtpNoEnvelope);
        return S_OK;
    }
    bstring from, recipients;
    from.assign_bstr_utf8(fromAddr);
    recipients.assign_bstr_utf8(recips);
    EnvelopeFromMessage(from, recipients);
    if (from.nSize == 0) {
        SetError("[Error: No sender address found]", kSmtpNoEnvelope);
        return S_OK;
    }
    bstring sender;
    std::vector<bstring> list;
    if (!BuildEnvelope(from, recipients, sender, list)) {
        SetError("[Error: No recipients and/or sender found]", kSmtpNoEnvelope);
        return S_OK;
    }
    wbstring dir;
    dir.assign_bstr(dirPath);
    std::string folder = platform::PathFromWide(dir);
    if (!folder.empty() && folder.back() != '/') folder += '/';
    // Written under a hidden name and renamed when whole, so that a pickup
    // service never takes a half-written file.
    const std::string name = QueueFileName();
    const std::string path = folder + name, partial = folder + "." + name + ".part";

    Message->EnsureRawBody();
    const bstring& text = Message->m_bsRawBody;
    bstring head("x-sender: <");
    head.append(sender).append(">\r\n");
    for (const bstring& r : list) head.append("x-receiver: <").append(r).append(">\r\n");
    bool ok = false;
    if (std::FILE* f = std::fopen(partial.c_str(), "wb")) {
        ok = std::fwrite(head.pData, 1, size_t(head.nSize), f) == size_t(head.nSize);
        if (ok && IsQueueIIS) {
            ok = ForEachStuffedPiece(text.pData, text.nSize, kPiece, [f](const char* p, int32_t n) {
                return std::fwrite(p, 1, size_t(n), f) == size_t(n);
            });
        } else if (ok) {
            ok = std::fwrite(text.pData, 1, size_t(text.nSize), f) == size_t(text.nSize);
        }
        ok = std::fclose(f) == 0 && ok;
        ok = ok && std::rename(partial.c_str(), path.c_str()) == 0;
        if (!ok) std::remove(partial.c_str());
    }
    if (!ok) {
        SetError("[Error: Failed to save queued message file]", kSmtpQueueFailed);
        return S_OK;
    }
    IsError = false;
    WriteLog("[The message has been queued successfully]");
    ErrCode = kErrNone;
    *out = VARIANT_TRUE;
    return S_OK;
}

// ---- lookups ---------------------------------------------------------------------------------

HRESULT CSMTP::GetRelayServerFromEmailAddress(BSTR emailAddress, BSTR dnsServer, VARIANT_BOOL singleAttemptOnly,
                                              int32_t timeout, BSTR* out) {
    *out = nullptr;
    Trace("GetRelayServer started");
    bstring address, domain;
    address.assign_bstr_utf8(emailAddress);
    if (!ValidateAddressSyntax(address)) {
        Trace("GetRelayServer invalid address");
        return S_OK;
    }
    if (!GetAddressHost(address, domain)) {
        Trace("Host is missing");
        return S_OK;
    }
    std::vector<std::string> servers;
    bstring given;
    given.assign_bstr_utf8(dnsServer);
    if (given.nSize > 0) {
        std::string text(given.pData, size_t(given.nSize));
        size_t semi = text.find(';');
        servers.push_back(text.substr(0, semi));
        if (semi != std::string::npos) servers.push_back(text.substr(semi + 1));
    } else {
        servers = platform::DnsServers();
        if (servers.empty()) {
            Trace("No DNS servers available");
            return S_OK;
        }
    }
    if (servers.size() < 2) servers.push_back(servers[0]);
    std::string name(domain.pData, size_t(domain.nSize));
    int32_t resolved = 0;
    MXRecord* records = LookupMX(name.c_str(), servers[0].c_str(), servers[1].c_str(), false, singleAttemptOnly != 0,
                                 timeout, resolved);
    if (records && records->Count > 0) {
        *out = bstring(records->Name).to_bstr(0);
    } else if (resolved) {
        *out = domain.to_bstr(0);
    }
    if (records) ReleaseMX(records);
    return S_OK;
}

HRESULT CSMTP::ResolveHostName(BSTR hostName, BSTR* out) {
    *out = nullptr;
    if (Busy) return S_OK;
    Busy = true;
    bstring host;
    host.assign_bstr_utf8(hostName);
    std::string name(host.pData ? host.pData : "", size_t(host.nSize));
    std::vector<uint8_t> bytes = Socket.ResolveHostAsync(name.c_str());
    if (!bytes.empty()) {
        std::string dotted;
        for (size_t i = 0; i < bytes.size(); ++i) {
            if (i) dotted += '.';
            dotted += std::to_string(bytes[i]);
        }
        *out = bstring(dotted.c_str()).to_bstr(0);
    }
    Busy = false;
    return S_OK;
}

}  // namespace kv
