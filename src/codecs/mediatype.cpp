#include "codecs/mediatype.h"

#include <cstring>

namespace kv {

namespace {

// Format numbers 0 to 17; nullptr marks the numbers that give an empty text.
const char* const kFormatTypes[18] = {
    "text/plain",
    "text/html",
    "text/rtf",
    "text/xml",
    "multipart/mixed",
    "multipart/related",
    "multipart/alternative",
    "text/plain",
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    "application/pkcs7-mime; name=\"smime.p7m\"\r\n"
    "Content-Disposition: attachment; filename=\"smime.p7m\"",
    "multipart/signed; application/pkcs7-signature",
};

struct ExtensionType {
    const char* extension;
    const char* type;
};

// Tested in this order.
const ExtensionType kExtensionTypes[] = {
    {"gif", "image/gif"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpe", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"bin", "application/octet-stream"},
    {"dms", "application/octet-stream"},
    {"lha", "application/octet-stream"},
    {"lzh", "application/octet-stream"},
    {"exe", "application/octet-stream"},
    {"class", "application/octet-stream"},
    {"dll", "application/octet-stream"},
    {"js", "application/x-javascript"},
    {"swf", "application/x-shockwave-flash"},
    {"doc", "application/msword"},
    {"zip", "application/zip"},
    {"ai", "application/postscript"},
    {"eps", "application/postscript"},
    {"ps", "application/postscript"},
    {"pdf", "application/pdf"},
    {"rtf", "application/rtf"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"htm", "text/html"},
    {"html", "text/html"},
    {"css", "text/css"},
    {"rtx", "text/richtext"},
    {"txt", "text/plain"},
    {"asc", "text/plain"},
    {"xml", "text/xml"},
    {"wav", "audio/x-wav"},
    {"mid", "audio/midi"},
    {"midi", "audio/midi"},
    {"mpga", "audio/mpeg"},
    {"mp2", "audio/mpeg"},
    {"mp3", "audio/mpeg"},
    {"aif", "audio/x-aiff"},
    {"aiff", "audio/x-aiff"},
    {"ra", "audio/x-realaudio"},
    {"mpeg", "video/mpeg"},
    {"mpg", "video/mpeg"},
    {"mpe", "video/mpeg"},
    {"qt", "video/quicktime"},
    {"mov", "video/quicktime"},
    {"avi", "video/x-msvideo"},
};

const char kOctetStream[] = "application/octet-stream";

}  // namespace

bstring& GetFormatMediaType(bstring& dest, int32_t format) {
    if (format < 0 || format > 17) return dest;
    const char* type = kFormatTypes[format];
    if (type) {
        dest.assign(type);
    } else {
        dest.nSize = 0;
    }
    return dest;
}

int32_t GetFormatFromMediaType(const bstring& mediaType) {
    if (mediaType.nSize <= 0 || mediaType.equals("text/plain") || mediaType.equals("text"))
        return kFormatPlain;
    if (mediaType.equals("text/html")) return kFormatHtml;
    if (mediaType.equals("text/rtf")) return kFormatRtf;
    if (mediaType.equals("text/xml")) return kFormatXml;
    return kFormatOtherText;
}

bool IsMultipartFormat(int32_t format) {
    return format == kFormatMixed || format == kFormatRelated || format == kFormatAlternative;
}

bstring& GetMediaTypeFromFileName(bstring& dest, const wbstring& fileName) {
    int32_t dot = fileName.nSize > 0 ? fileName.rfind(u'.') : -1;
    if (dot < 0 || dot == fileName.nSize - 1) return dest.assign(kOctetStream);
    wbstring wide(fileName.pData + dot + 1, fileName.nSize - dot - 1);
    bstring extension;
    wide.export_bstring(extension, 0);
    for (const ExtensionType& e : kExtensionTypes)
        if (extension.equals(e.extension)) return dest.assign(e.type);
    return dest.assign(kOctetStream);
}

wbstring& GetExtensionFromMediaType(wbstring& dest, const bstring& mediaType, bool useDefault) {
    const char16_t* extension = nullptr;
    if (mediaType.nSize >= 8 && std::memcmp(mediaType.pData, "message/", 8) == 0) {
        extension = u"eml";
    } else if (mediaType.equals("image/gif")) {
        extension = u"gif";
    } else if (mediaType.equals("image/jpeg")) {
        extension = u"jpg";
    } else if (mediaType.equals("image/png")) {
        extension = u"png";
    } else if (mediaType.equals("text/html")) {
        extension = u"html";
    } else if (useDefault) {
        extension = u"dat";
    }
    if (extension) return dest.assign(extension);
    dest.nSize = 0;
    return dest;
}

}  // namespace kv
