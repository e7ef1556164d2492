// QXUDIFLicense.h - the software licence agreement an image may carry.
//
// "LPic" 5000 lists the languages and which "TEXT" or "RTF " resource
// (5000 + k) holds each one's text. Writers disagree on LPic's details, so it
// is read leniently: a damaged or missing LPic falls back to the first text
// resource from 5000 on. Texts are Mac OS Roman with CR line ends; RTF is
// reduced to its plain text.
#pragma once

#include "Internal/QXUDIFResources.h"

#include <optional>
#include <string>

namespace QXUDIF {

class License {
public:
    static bool isPresent(const Resources& resources);
    /// The agreement as UTF-8 with LF line ends, or nothing when there is none.
    static std::optional<std::string> text(const Resources& resources);
    /// The plain text of an RTF document (bytes in Mac OS Roman where RTF
    /// gives no code page of its own), as UTF-8.
    static std::string textFromRTF(const std::string& rtf);
    /// Adds an English agreement (LPic 5000, STR# 5000 with the button
    /// labels, TEXT 5000 in Mac OS Roman with CR line ends) made from UTF-8
    /// text; false and the reason when the text is not UTF-8 or has
    /// characters Mac OS Roman cannot hold.
    static bool addEnglish(const std::string& utf8Text, Resources& resources, std::string* reason);
};

} // namespace QXUDIF
