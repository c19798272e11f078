// The catalogue: every class of the library, in catalogue order, with its
// ProgID, description, identifiers and factory. A class whose subsystem is
// not in this build has no factory function: creating it answers that the
// class is not available.
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <mutex>

#include "message/collections.h"
#include "message/message.h"
#include "pop3/pop3.h"
#include "smtp/smtp.h"
#include "shell/classes.h"
#include "shell/identifiers.h"
#include "shell/registration.h"
#include "transport/ssl.h"
#include "platform/random.h"
#include "upload/uploader.h"

namespace kv::shell {

namespace {

template <class T>
HRESULT Make(IDispatch** out) {
    *out = T::New();
    return *out ? S_OK : E_OUTOFMEMORY;
}

}  // namespace

// Interfaces of classes whose subsystems are not in this build: the
// identity is fixed now, the members arrive with the classes.
const InterfaceInfo kIIMAP4Pending("IIMAP4", IID_IIMAP4, {});
const InterfaceInfo kIIMAP4ResponsePending("IIMAP4Response", IID_IIMAP4Response, {});
const InterfaceInfo kIEnvelopePending("IEnvelope", IID_IEnvelope, {});
const InterfaceInfo kIEnvelopesPending("IEnvelopes", IID_IEnvelopes, {});
const InterfaceInfo kIBodyPartStructurePending("IBodyPartStructure", IID_IBodyPartStructure, {});
const InterfaceInfo kIBodyPartStructuresPending("IBodyPartStructures", IID_IBodyPartStructures, {});
const InterfaceInfo kIMailboxPending("IMailbox", IID_IMailbox, {});
const InterfaceInfo kIMailboxesPending("IMailboxes", IID_IMailboxes, {});
const InterfaceInfo kISMIMEPending("ISMIME", IID_ISMIME, {});
const InterfaceInfo kIMailboxStatusPending("IMailboxStatus", IID_IMailboxStatus, {});

// clang-format off
const ClassInfo kMessageClass{"CMessage", "Korvane.Message", "Message Class", CLSID_Message, &kIMessage, nullptr, true, &Make<CMessage>};
const ClassInfo kAttachmentClass{"CAttachment", "Korvane.Attachment", "Attachment Class", CLSID_Attachment, &kIAttachment, nullptr, false, &Make<CAttachment>};
const ClassInfo kAttachmentsClass{"CAttachments", "Korvane.Attachments", "Attachments Class", CLSID_Attachments, &kIAttachments, nullptr, false, &Make<CAttachments>};
const ClassInfo kMIMEHeaderClass{"CMIMEHeader", "Korvane.MIMEHeader", "MIMEHeader Class", CLSID_MIMEHeader, &kIMIMEHeader, nullptr, false, &Make<CMIMEHeader>};
const ClassInfo kMIMEHeadersClass{"CMIMEHeaders", "Korvane.MIMEHeaders", "MIMEHeaders Class", CLSID_MIMEHeaders, &kIMIMEHeaders, nullptr, false, &Make<CMIMEHeaders>};
const ClassInfo kBodyPartClass{"CBodyPart", "Korvane.BodyPart", "BodyPart Class", CLSID_BodyPart, &kIBodyPart, nullptr, false, &Make<CBodyPart>};
const ClassInfo kPOP3Class{"CPOP3", "Korvane.POP3", "POP3 Class", CLSID_POP3, &kIPOP3, &kIPOP3Events, true, &Make<CPOP3>};
const ClassInfo kSMTPClass{"CSMTP", "Korvane.SMTP", "SMTP Class", CLSID_SMTP, &kISMTP, &kISMTPEvents, true, &Make<CSMTP>};
const ClassInfo kMessagesClass{"CMessages", "Korvane.Messages", "Messages Class", CLSID_Messages, &kIMessages, nullptr, false, &Make<CMessages>};
const ClassInfo kIMAP4Class{"CIMAP4", "Korvane.IMAP4", "IMAP4 Class", CLSID_IMAP4, &kIIMAP4Pending, nullptr, true, nullptr};
const ClassInfo kIMAP4ResponseClass{"CIMAP4Response", "Korvane.IMAP4Response", "IMAP4Response Class", CLSID_IMAP4Response, &kIIMAP4ResponsePending, nullptr, false, nullptr};
const ClassInfo kEnvelopeClass{"CEnvelope", "Korvane.Envelope", "Envelope Class", CLSID_Envelope, &kIEnvelopePending, nullptr, false, nullptr};
const ClassInfo kEnvelopesClass{"CEnvelopes", "Korvane.Envelopes", "Envelopes Class", CLSID_Envelopes, &kIEnvelopesPending, nullptr, false, nullptr};
const ClassInfo kBodyPartStructureClass{"CBodyPartStructure", "Korvane.BodyPartStructure", "BodyPartStructure Class", CLSID_BodyPartStructure, &kIBodyPartStructurePending, nullptr, false, nullptr};
const ClassInfo kBodyPartStructuresClass{"CBodyPartStructures", "Korvane.BodyPartStructures", "BodyPartStructures Class", CLSID_BodyPartStructures, &kIBodyPartStructuresPending, nullptr, false, nullptr};
const ClassInfo kMailboxClass{"CMailbox", "Korvane.Mailbox", "Mailbox Class", CLSID_Mailbox, &kIMailboxPending, nullptr, false, nullptr};
const ClassInfo kMailboxesClass{"CMailboxes", "Korvane.Mailboxes", "Mailboxes Class", CLSID_Mailboxes, &kIMailboxesPending, nullptr, false, nullptr};
const ClassInfo kSSLClass{"CSSL", "Korvane.SSL", "SSL Class", CLSID_SSL, &kISSL, nullptr, true, &Make<CSSL>};
const ClassInfo kCertInfoClass{"CCertInfo", "Korvane.CertInfo", "CertInfo Class", CLSID_CertInfo, &kICertInfo, nullptr, false, &Make<CCertInfo>};
const ClassInfo kSMIMEClass{"CSMIME", "Korvane.SMIME", "SMIME Class", CLSID_SMIME, &kISMIMEPending, nullptr, true, nullptr};
const ClassInfo kFormElementClass{"CFormElement", "Korvane.FormElement", "FormElement Class", CLSID_FormElement, &kIFormElement, nullptr, true, &Make<CFormElement>};
// Scripts create the form file by this spelling, so it stays.
const ClassInfo kFormFileClass{"CFormFile", "Korvane.FromFile", "FromFile Class", CLSID_FormFile, &kIFormFile, nullptr, true, &Make<CFormFile>};
const ClassInfo kFormElementsClass{"CFormElements", "Korvane.FormElements", "FormElements Class", CLSID_FormElements, &kIFormElements, nullptr, true, &Make<CFormElements>};
const ClassInfo kFormFilesClass{"CFormFiles", "Korvane.FormFiles", "FormFiles Class", CLSID_FormFiles, &kIFormFiles, nullptr, true, &Make<CFormFiles>};
const ClassInfo kUploaderClass{"CUploader", "Korvane.Uploader", "Uploader Class", CLSID_Uploader, &kIUploader, nullptr, true, &Make<CUploader>};
const ClassInfo kMailboxStatusClass{"CMailboxStatus", "Korvane.MailboxStatus", "MailboxStatus Class", CLSID_MailboxStatus, &kIMailboxStatusPending, nullptr, true, nullptr};
// clang-format on

const ClassInfo* const kCatalogue[] = {
    &kMessageClass,           &kAttachmentClass,       &kAttachmentsClass,
    &kMIMEHeaderClass,        &kMIMEHeadersClass,      &kBodyPartClass,
    &kPOP3Class,              &kSMTPClass,             &kMessagesClass,
    &kIMAP4Class,             &kIMAP4ResponseClass,    &kEnvelopeClass,
    &kEnvelopesClass,         &kBodyPartStructureClass, &kBodyPartStructuresClass,
    &kMailboxClass,           &kMailboxesClass,        &kSSLClass,
    &kCertInfoClass,          &kSMIMEClass,            &kFormElementClass,
    &kFormFileClass,          &kFormElementsClass,     &kFormFilesClass,
    &kUploaderClass,          &kMailboxStatusClass,
};

const std::vector<const ClassInfo*>& CatalogueClasses() {
    static const std::vector<const ClassInfo*> all(std::begin(kCatalogue), std::end(kCatalogue));
    return all;
}

void RegisterCatalogue() {
    static std::once_flag once;
    std::call_once(once, [] {
        for (const ClassInfo* cls : kCatalogue) automation::Catalogue::Instance().Register(*cls);
    });
}

namespace {

// What the library does when it is loaded: the catalogue becomes reachable
// and the random generator of boundaries starts from the time.
__attribute__((constructor)) void OnLoad() {
    platform::SRand(uint32_t(std::time(nullptr)));
    RegisterCatalogue();
    InstallStoreResolver();
}

}  // namespace
}  // namespace kv::shell
