// The classes of the catalogue, in catalogue order, and the dispatch
// interfaces that their implementations define. Identifiers live in
// shell/identifiers.h.
#pragma once

#include <vector>

#include "automation/catalogue.h"

namespace kv::shell {

using automation::ClassInfo;
using automation::InterfaceInfo;

extern const ClassInfo kMessageClass;
extern const ClassInfo kAttachmentClass;
extern const ClassInfo kAttachmentsClass;
extern const ClassInfo kMIMEHeaderClass;
extern const ClassInfo kMIMEHeadersClass;
extern const ClassInfo kBodyPartClass;
extern const ClassInfo kPOP3Class;
extern const ClassInfo kSMTPClass;
extern const ClassInfo kMessagesClass;
extern const ClassInfo kIMAP4Class;
extern const ClassInfo kIMAP4ResponseClass;
extern const ClassInfo kEnvelopeClass;
extern const ClassInfo kEnvelopesClass;
extern const ClassInfo kBodyPartStructureClass;
extern const ClassInfo kBodyPartStructuresClass;
extern const ClassInfo kMailboxClass;
extern const ClassInfo kMailboxesClass;
extern const ClassInfo kSSLClass;
extern const ClassInfo kCertInfoClass;
extern const ClassInfo kSMIMEClass;
extern const ClassInfo kFormElementClass;
extern const ClassInfo kFormFileClass;
extern const ClassInfo kFormElementsClass;
extern const ClassInfo kFormFilesClass;
extern const ClassInfo kUploaderClass;
extern const ClassInfo kMailboxStatusClass;

// Member tables defined beside their classes.
extern const InterfaceInfo kIMessage;
extern const InterfaceInfo kIAttachment;
extern const InterfaceInfo kIAttachments;
extern const InterfaceInfo kIMIMEHeader;
extern const InterfaceInfo kIMIMEHeaders;
extern const InterfaceInfo kIBodyPart;
extern const InterfaceInfo kIMessages;
extern const InterfaceInfo kIUploader;
extern const InterfaceInfo kIFormElement;
extern const InterfaceInfo kIFormFile;
extern const InterfaceInfo kIFormElements;
extern const InterfaceInfo kIFormFiles;
extern const InterfaceInfo kISSL;
extern const InterfaceInfo kICertInfo;
extern const InterfaceInfo kIPOP3;
extern const InterfaceInfo kIPOP3Events;
extern const InterfaceInfo kISMTP;
extern const InterfaceInfo kISMTPEvents;

// The classes of the catalogue, in order (test classes are not among them).
const std::vector<const ClassInfo*>& CatalogueClasses();

// Registers every class of the catalogue, once; later calls do nothing.
// Runs when the shared library loads; a program linked statically calls it.
void RegisterCatalogue();

}  // namespace kv::shell
