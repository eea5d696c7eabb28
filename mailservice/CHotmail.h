// The session with the web mail service: log-in and folder discovery, folder and mailbox listings, message
// operations and sending, all through one synchronous HTTP request object. Every failure reaches the caller
// as a core::Error raised through MErrorHandler::HandleError with the failing operation's label.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/Collection.h"
#include "core/ITextPieces.h"
#include "core/SpoolFile.h"
#include "core/SpoolText.h"
#include "mailservice/CHotmailFolder.h"
#include "mailservice/CHotmailMessage.h"

namespace mailservice {

using MessagePtr = std::shared_ptr<CHotmailMessage>;
using FolderPtr = std::shared_ptr<CHotmailFolder>;
using MailCollectionPtr = core::CollectionPtr<MessagePtr>;
using FolderCollectionPtr = core::CollectionPtr<FolderPtr>;
using IdCollectionPtr = core::CollectionPtr<std::string>;

class CHotmail {
public:
    // Stores the request texts, makes the empty collections, the request object and the reply document.
    CHotmail();
    // Aborts the request object; never throws.
    ~CHotmail();
    CHotmail(const CHotmail&) = delete;
    CHotmail& operator=(const CHotmail&) = delete;

    // The address the log-in request goes to: the built-in one unless replaced (the --service-url option).
    static std::string ServiceEntryURL();
    static void SetServiceEntryURL(const std::string& url);

    // Plain text properties: stored and returned unchanged, no trap.
    const std::string& UserName() const;
    void SetUserName(const std::string& New_Username);
    const std::string& Password() const;
    void SetPassword(const std::string& New_Password);
    const std::string& InboxURL() const;
    void SetInboxURL(const std::string& New_InboxURL);
    const std::string& ContactsURL() const;
    void SetContactsURL(const std::string& New_ContactsURL);
    const std::string& OutboxURL() const;
    void SetOutboxURL(const std::string& New_OutboxURL);
    const std::string& SentItemsURL() const;
    void SetSentItemsURL(const std::string& New_SentItemsURL);
    const std::string& TrashURL() const;
    void SetTrashURL(const std::string& New_TrashURL);
    const std::string& RootFolderURL() const;
    void SetRootFolderURL(const std::string& New_RootFolderURL);
    const std::string& BaseRefURL() const;
    void SetBaseRefURL(const std::string& New_BaseRefURL);
    const std::string& AdPaneURL() const;
    void SetAdPaneURL(const std::string& New_AdPaneURL);
    const std::string& AllFolderInfo() const;
    void SetAllFolderInfo(const std::string& New_AllFolderInfo);
    const std::string& HotmailError() const;
    void SetHotmailError(const std::string& New_HotmailError);

    // The current HotmailError text.
    std::string GetErrorCode() const;
    // The session's own folder collection (shared, not a copy), in reply order, without keys.
    FolderCollectionPtr GetFolderCollection() const;
    // The session's own mail collection (shared, not a copy), keyed by mIndex.
    MailCollectionPtr GetMailCollection() const;

    // Logs in and learns the folder addresses, then lists the folders. Returns true whenever it returns.
    bool Connect();
    // Lists the folder at `ukey` into a new mail collection, fetching every message's text.
    void ParseMailboxInfo(const std::string& ukey);
    // The reply text of a GET of `strMessageURL`; stores nothing.
    std::string GetMessage(const std::string& strMessageURL);
    // The same reply text, appended to `spool` as it arrives instead of kept in memory; its stretch of the
    // file. A failed write to the spool raises the spool's error.
    core::SpoolText GetMessage(const std::string& strMessageURL, const std::shared_ptr<core::SpoolFile>& spool);
    // Sets / clears the read flag of the message at `ukey`, then lists `currentfolder` again.
    void FlagMailRead(const std::string& ukey, const std::string& currentfolder);
    void FlagMailUnread(const std::string& ukey, const std::string& currentfolder);
    // Moves the messages whose ids `uMail` holds from `mFolder` to TrashURL; returns the reply header block.
    std::string DeleteMail(const IdCollectionPtr& uMail, const std::string& mFolder);
    // Moves message `uMail` from `mSrcFolder` to `mDestFolder`; returns the reply header block.
    std::string MoveMail(const std::string& uMail, const std::string& mSrcFolder, const std::string& mDestFolder);
    // Posts `strMessage` (a message/rfc821 text) to OutboxURL; returns the reply header block.
    std::string SendMail(const std::string& strMessage);
    // The same post, with the `size` bytes of the message read a piece at a time as they go out (a message
    // kept on disk); `strMessage` gives a reader from the start each time it is called.
    std::string SendMail(const core::TextPiecesSource& strMessage, std::uint64_t size);

private:
    struct Impl;

    // Empties the text fields, HotmailError last.
    void InitializeProperties();
    // The folder request for `folderUrl`; its reply text.
    std::string GetFolder(const std::string& folderUrl);
    // Reads the folder addresses from the log-in reply by position; false when the reply is not XML.
    bool RetrievFolderURLs();
    // The folder request for RootFolderURL; its reply text.
    std::string GetAllFolderInfo();
    // The listing request for the folder at `ukey`; its reply text.
    std::string GetMailInfo(const std::string& ukey);
    // The body shared by FlagMailRead and FlagMailUnread (no trap of its own: each runs it under its label).
    void SetReadFlag(const std::string& request, const std::string& ukey, const std::string& currentfolder);
    // Appends the folders of RootFolderURL to the folder collection.
    void ParseFolderInfo();

    std::unique_ptr<Impl> d_;
};

}  // namespace mailservice
