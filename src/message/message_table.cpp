// The IMessage member table, in slot order. Members whose work belongs to
// subsystems that are not in this build are listed with their signature but
// no binding: hosts see them in the type information, and a call reports
// that the member is not available.
#include "message/message.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv::shell {

using automation::Arg;
using automation::Bind;
using automation::Binding;
using automation::Method;
using automation::Opt;
using automation::Property;

namespace {

// A getter whose subsystem is not in this build.
automation::MemberInfo PendingGet(DISPID id, const char* name, VARTYPE type) {
    return Property(id, name, type, Binding{});
}

}  // namespace

const InterfaceInfo kIMessage("IMessage", IID_IMessage, {
    Property(1, "BodyText", VT_BSTR, Bind<&CMessage::get_BodyText>(), Bind<&CMessage::put_BodyText>()),
    Property(2, "FromAddr", VT_BSTR, Bind<&CMessage::get_FromAddr>(), Bind<&CMessage::put_FromAddr>()),
    Property(3, "ToAddr", VT_BSTR, Bind<&CMessage::get_ToAddr>(), Bind<&CMessage::put_ToAddr>()),
    Property(4, "Subject", VT_BSTR, Bind<&CMessage::get_Subject>(), Bind<&CMessage::put_Subject>()),
    Property(6, "Attachments", VT_DISPATCH, Bind<&CMessage::get_Attachments>()),
    Method(7, "AddAttachment", VT_BOOL, Bind<&CMessage::AddAttachment>(),
           {Arg("FilePath", VT_BSTR), Opt("ContentType", VT_BSTR, ""), Opt("ContentID", VT_BSTR, ""),
            Opt("FilenameInMessage", VT_BSTR, "")}),
    Property(9, "RawBody", VT_BSTR, Bind<&CMessage::get_RawBody>(), Bind<&CMessage::put_RawBody>()),
    Method(10, "AddHeader", VT_BOOL, Bind<&CMessage::AddHeader>(),
           {Arg("Name", VT_BSTR), Arg("Value", VT_BSTR)}),
    Method(11, "GetHeader", VT_BSTR, Bind<&CMessage::GetHeader>(), {Arg("HeaderName", VT_BSTR)}),
    Property(12, "AltBodyText", VT_BSTR, Bind<&CMessage::get_AltBodyText>(), Bind<&CMessage::put_AltBodyText>()),
    Property(13, "BodyFormat", VT_I4, Bind<&CMessage::get_BodyFormat>(), Bind<&CMessage::put_BodyFormat>()),
    Method(14, "ImportBodyText", VT_BOOL, Binding{},
           {Arg("FilePath", VT_BSTR), Opt("HTMLImport", VT_BOOL, false), Opt("AppendMode", VT_BOOL, false),
            Opt("Charset", VT_BSTR, ""), Opt("CharsetOptions", VT_I4, 0)}),
    Method(15, "EncodeHeaderText", VT_BSTR, Binding{},
           {Arg("HeaderName", VT_BSTR), Arg("HeaderText", VT_BSTR), Arg("Charset", VT_BSTR),
            Arg("Encoding", VT_I4)}),
    Property(16, "GetObject", VT_I8, Bind<&CMessage::get_GetObject>()),
    Method(17, "SaveMessage", VT_BOOL, Binding{}, {Arg("FilePath", VT_BSTR)}),
    PendingGet(18, "PureFromAddr", VT_BSTR),
    PendingGet(19, "PureToAddr", VT_BSTR),
    PendingGet(20, "PureCCAddr", VT_BSTR),
    PendingGet(21, "ToFriendlyName", VT_BSTR),
    PendingGet(22, "FromFriendlyName", VT_BSTR),
    PendingGet(23, "CCFriendlyName", VT_BSTR),
    Property(24, "CCAddr", VT_BSTR, Bind<&CMessage::get_CCAddr>(), Bind<&CMessage::put_CCAddr>()),
    Property(25, "BCCAddr", VT_BSTR, Bind<&CMessage::get_BCCAddr>(), Bind<&CMessage::put_BCCAddr>()),
    Method(26, "ImportAltBodyText", VT_BOOL, Binding{},
           {Arg("FilePath", VT_BSTR), Opt("AppendMode", VT_BOOL, false), Opt("Charset", VT_BSTR, "")}),
    Method(27, "MakeAltBody", VT_BOOL, Binding{}),
    Property(28, "Locked", VT_BOOL, Bind<&CMessage::get_Locked>(), Bind<&CMessage::put_Locked>()),
    Property(29, "BodyEncoding", VT_I4, Bind<&CMessage::get_BodyEncoding>(), Bind<&CMessage::put_BodyEncoding>()),
    Property(30, "AltBodyEncoding", VT_I4, Bind<&CMessage::get_AltBodyEncoding>(),
             Bind<&CMessage::put_AltBodyEncoding>()),
    Property(31, "Enable8bitEncoding", VT_BOOL, Bind<&CMessage::get_Enable8bitEncoding>(),
             Bind<&CMessage::put_Enable8bitEncoding>()),
    Property(32, "Charset", VT_BSTR, Bind<&CMessage::get_Charset>(), Bind<&CMessage::put_Charset>()),
    Property(33, "MessageDate", VT_BSTR, Bind<&CMessage::get_MessageDate>(), Bind<&CMessage::put_MessageDate>()),
    Property(34, "MessageId", VT_BSTR, Bind<&CMessage::get_MessageId>(), Bind<&CMessage::put_MessageId>()),
    Property(35, "ReturnPath", VT_BSTR, Bind<&CMessage::get_ReturnPath>(), Bind<&CMessage::put_ReturnPath>()),
    Property(36, "Received", VT_BSTR, Bind<&CMessage::get_Received>()),
    Property(37, "ReplyToAddr", VT_BSTR, Bind<&CMessage::get_ReplyToAddr>(), Bind<&CMessage::put_ReplyToAddr>()),
    Property(39, "Size", VT_I4, Bind<&CMessage::get_Size>()),
    Property(40, "HasAttachments", VT_BOOL, Bind<&CMessage::get_HasAttachments>()),
    Property(41, "ContentType", VT_BSTR, Bind<&CMessage::get_ContentType>()),
    Property(42, "ContentTransferEncoding", VT_BSTR, Bind<&CMessage::get_ContentTransferEncoding>()),
    Method(43, "GetPlainFromHtml", VT_BSTR, Binding{}, {Arg("Html", VT_BSTR)}),
    Method(44, "GetHtmlFromPlain", VT_BSTR, Binding{},
           {Arg("PlainText", VT_BSTR), Opt("Title", VT_BSTR, ""), Opt("InnerBodyOnly", VT_BOOL, false)}),
    Method(45, "GetDateFromString", VT_DATE, Binding{},
           {Arg("DateStr", VT_BSTR), Opt("ToLocalTime", VT_BOOL, true)}),
    Method(47, "ImportFromFile", VT_BOOL, Binding{}, {Arg("FilePath", VT_BSTR)}),
    Property(48, "CodepageMode", VT_I4, Bind<&CMessage::get_CodepageMode>(), Bind<&CMessage::put_CodepageMode>()),
    Method(49, "GetBodyWithEmbeddedObjectsEx", VT_BSTR, Binding{},
           {Opt("TempDirectoryPath", VT_BSTR, ""), Opt("VirtualPath", VT_BSTR, ""),
            Opt("MessageDirectoryName", VT_BSTR, ""), Opt("PathBuildingMode", VT_I4, 0),
            Opt("Options", VT_I4, 0), Opt("Censor", VT_DISPATCH)}),
    Method(50, "RemoveMessageDirectory", VT_BOOL, Binding{},
           {Opt("MessageDirectoryPath", VT_BSTR, ""), Opt("DeleteContentOnly", VT_BOOL, false)}),
    Method(51, "GetMessageDirectoryPath", VT_BSTR, Bind<&CMessage::GetMessageDirectoryPath>()),
    Method(52, "GetMD5Digest", VT_BSTR, Binding{}, {Arg("Text", VT_BSTR), Opt("Codepage", VT_I4, 65001)}),
    Method(53, "GetBodyWithEmbeddedObjects", VT_BSTR, Binding{},
           {Opt("TempDirectoryPath", VT_BSTR, ""), Opt("MessageDirectoryName", VT_BSTR, ""),
            Opt("Censor", VT_DISPATCH)}),
    Property(54, "Date", VT_BSTR, Bind<&CMessage::get_Date>(), Bind<&CMessage::put_Date>()),
    Method(55, "MessageDirectoryExists", VT_BOOL, Binding{}, {Opt("MessageDirectoryPath", VT_BSTR, "")}),
    Method(56, "ToUTF8", VT_BSTR, Binding{}, {Arg("Src", VT_BSTR), Opt("SrcCharset", VT_BSTR, "")}),
    Property(57, "XMailer", VT_BSTR, Bind<&CMessage::get_XMailer>(), Bind<&CMessage::put_XMailer>()),
    Method(58, "ValidateEmailAddress", VT_BOOL, Binding{},
           {Arg("EmailAddress", VT_BSTR), Opt("Options", VT_I4, 0), Opt("DNSServer", VT_BSTR, "")}),
    Property(59, "Codepage", VT_I4, Bind<&CMessage::get_Codepage>(), Bind<&CMessage::put_Codepage>()),
    Method(60, "GetFileAsArray", VT_VARIANT, Binding{}, {Arg("FilePath", VT_BSTR)}),
    Property(61, "AltBodyOptions", VT_I4, Bind<&CMessage::get_AltBodyOptions>(), Bind<&CMessage::put_AltBodyOptions>()),
    Property(62, "AltBodyHRefSuffix", VT_BSTR, Bind<&CMessage::get_AltBodyHRefSuffix>(),
             Bind<&CMessage::put_AltBodyHRefSuffix>()),
    Method(63, "GetPureAddr", VT_BSTR, Binding{}, {Arg("Addr", VT_BSTR), Opt("Delimiter", VT_BSTR, "")}),
    Method(64, "GetFriendlyName", VT_BSTR, Binding{}, {Arg("Addr", VT_BSTR), Opt("Delimiter", VT_BSTR, "")}),
    Property(65, "RawHeader", VT_BSTR, Bind<&CMessage::get_RawHeader>()),
    Method(66, "GetLocalTimeZoneOffset", VT_I4, Bind<&CMessage::GetLocalTimeZoneOffset>(),
           {Opt("IgnoreDaylightBias", VT_BOOL, false)}),
    Property(68, "MinimalRebuild", VT_BOOL, Bind<&CMessage::get_MinimalRebuild>(),
             Bind<&CMessage::put_MinimalRebuild>()),
    Method(69, "RemoveHeader", VT_BOOL, Bind<&CMessage::RemoveHeader>(), {Arg("HeaderName", VT_BSTR)}),
    Method(70, "AddMemoryAttachment", VT_BOOL, Bind<&CMessage::AddMemoryAttachment>(),
           {Arg("Data", VT_VARIANT), Arg("FilenameInMessage", VT_BSTR), Opt("ContentType", VT_BSTR, ""),
            Opt("ContentID", VT_BSTR, "")}),
    Method(71, "AddStringAttachment", VT_BOOL, Bind<&CMessage::AddStringAttachment>(),
           {Arg("Data", VT_BSTR), Arg("AsUTF8", VT_BOOL), Arg("FilenameInMessage", VT_BSTR),
            Opt("ContentType", VT_BSTR, ""), Opt("ContentID", VT_BSTR, "")}),
    Property(72, "SpecialBodyText", VT_BSTR, Bind<&CMessage::get_SpecialBodyText>(),
             Bind<&CMessage::put_SpecialBodyText>()),
    Property(73, "SpecialBodyContentType", VT_BSTR, Bind<&CMessage::get_SpecialBodyContentType>(),
             Bind<&CMessage::put_SpecialBodyContentType>()),
    Property(74, "SpecialBodyHeaders", VT_BSTR, Bind<&CMessage::get_SpecialBodyHeaders>(),
             Bind<&CMessage::put_SpecialBodyHeaders>()),
    Method(75, "SetMultipartContentType", VT_EMPTY, Bind<&CMessage::SetMultipartContentType>(),
           {Arg("ContentType", VT_BSTR), Opt("ExtraParams", VT_BSTR, "")}),
    Method(76, "Clone", VT_DISPATCH, Bind<&CMessage::Clone>()),
    Method(77, "GetMD5DigestOfArray", VT_BSTR, Binding{}, {Arg("Data", VT_VARIANT)}),
    Method(78, "DecodeMstnef", VT_I4, Binding{}),
    Method(79, "ConvertCharset", VT_BSTR, Binding{},
           {Arg("Src", VT_BSTR), Arg("SrcCharset", VT_BSTR), Arg("DestCharset", VT_BSTR)}),
    Property(80, "IsRtlBody", VT_BOOL, Bind<&CMessage::get_IsRtlBody>()),
    Property(81, "CodepageOriginal", VT_I4, Bind<&CMessage::get_CodepageOriginal>()),
    Property(82, "CharsetOriginal", VT_BSTR, Bind<&CMessage::get_CharsetOriginal>()),
    PendingGet(83, "PureReplyToAddr", VT_BSTR),
    PendingGet(84, "ReplyToFriendlyName", VT_BSTR),
    Method(85, "RemoveCharsetFromBody", VT_BSTR, Binding{}),
    Method(86, "ImportFromMemory", VT_BOOL, Binding{}, {Arg("Data", VT_VARIANT)}),
    Property(87, "AutoEncodeHeaders", VT_BOOL, Bind<&CMessage::get_AutoEncodeHeaders>(),
             Bind<&CMessage::put_AutoEncodeHeaders>()),
    Method(88, "GetCodepageFromCharset", VT_I4, Binding{}, {Arg("Charset", VT_BSTR)}),
    Method(89, "WriteStringToFile", VT_BOOL, Binding{},
           {Arg("Filename", VT_BSTR), Arg("Data", VT_BSTR), Opt("Overwrite", VT_BOOL, false),
            Opt("Codepage", VT_I4, 0)}),
    Property(90, "AddressDelimiter", VT_BSTR, Bind<&CMessage::get_AddressDelimiter>(),
             Bind<&CMessage::put_AddressDelimiter>()),
    Method(91, "EscapeIdnDomain", VT_BSTR, Binding{}, {Arg("EmailAddress", VT_BSTR)}),
    Method(92, "UnescapeIdnDomain", VT_BSTR, Binding{}, {Arg("EmailAddress", VT_BSTR)}),
});

}  // namespace kv::shell
