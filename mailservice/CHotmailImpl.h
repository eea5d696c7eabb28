// The session's state, private to the mailservice sources.
#pragma once

#include <string>

#include "mailservice/CHotmail.h"
#include "platform/http/HttpRequest.h"
#include "platform/xml/XmlDocument.h"

namespace mailservice {

// Fixed texts of the session.
namespace HotmailText {
// Schema address the folder-address request names for the "h" prefix.
inline constexpr const char* kSchemaNamespace = "http://schemas.tarnwick.invalid/hotmail/";
inline constexpr const char* kUserAgent = "Outlook Express/5.0 (MSIE 5.0; Windows 2000; Tarnwick-POP3 Gateway;)";
inline constexpr const char* kDefaultServiceEntryURL = "http://127.0.0.1:8110/svcs/hotmail/tarnwick.asp";
inline constexpr const char* kInvalidResponse = "Invalid response from server";
inline constexpr const char* kDavErrorHeader = "X-Dav-Error";
}  // namespace HotmailText

// Listings count positions in 16 bits; entries beyond this many are not listed.
inline constexpr int kMaxListEntries = 32767;

struct CHotmail::Impl {
    std::string HotmailError;
    std::string UserName;
    std::string Password;
    std::string LastReplyText;
    std::string LastReplyHeaders;
    std::string InboxURL;
    std::string ContactsURL;
    std::string OutboxURL;
    std::string SentItemsURL;
    std::string TrashURL;
    std::string RootFolderURL;
    std::string BaseRefURL;
    std::string AdPaneURL;
    std::string AllFolderInfo;
    std::string FolderUrlsRequest;
    std::string MailListRequest;
    std::string FolderInfoRequest;
    std::string MarkReadRequest;
    std::string MarkUnreadRequest;
    std::string MoveRequestTemplate;
    platform::XmlDocument ReplyDocument;
    platform::HttpRequest HttpRequest;
    FolderCollectionPtr FolderCollection;
    MailCollectionPtr MailCollection;

    // The folder and listing requests: a PROPFIND of `url` with `body`, then the reply's header block, text
    // and "X-Dav-Error" value, stored in that order; returns the text.
    std::string Propfind(const std::string& url, const std::string& body);
    // The reply to a move or a sent message: stores its text and then its "X-Dav-Error" value (raising when
    // there is none, with the text already stored); returns its header block.
    std::string ActionReply();
    // The BMOVE request shared by deleting and moving: one D:href per id, to `fromFolder`, naming `toFolder`.
    std::string MoveRequest(const IdCollectionPtr& ids, const std::string& fromFolder, const std::string& toFolder);
};

}  // namespace mailservice
