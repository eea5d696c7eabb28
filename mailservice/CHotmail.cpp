// Creation, release, properties and the request texts of the service session.
#include "mailservice/CHotmail.h"

#include "core/Trap.h"
#include "mailservice/CHotmailImpl.h"

namespace mailservice {
namespace {

std::string& ServiceEntry() {
    static std::string url = HotmailText::kDefaultServiceEntryURL;
    return url;
}

std::string FolderUrlsRequestText() {
    return std::string("<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='") + HotmailText::kSchemaNamespace +
           "' xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/>"
           "<hm:sendmsg/><hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/>"
           "</D:prop></D:propfind>";
}

constexpr const char* kFolderInfoRequest =
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
    "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/>"
    "</D:prop></D:propfind>";

constexpr const char* kMarkReadRequest =
    "<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
    "<hm:read>1</hm:read></D:prop></D:set></D:propertyupdate>";

constexpr const char* kMarkUnreadRequest =
    "<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
    "<hm:read>0</hm:read></D:prop></D:set></D:propertyupdate>";

constexpr const char* kMoveRequestTemplate =
    "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target></D:target></D:move>";

}  // namespace

CHotmail::CHotmail() {
    core::Trap("CHotmail Class_Initialize Event", [&] {
        d_ = std::make_unique<Impl>();
        d_->FolderUrlsRequest = FolderUrlsRequestText();
        d_->MailListRequest = "";
        d_->FolderInfoRequest = kFolderInfoRequest;
        d_->MarkReadRequest = kMarkReadRequest;
        d_->MarkUnreadRequest = kMarkUnreadRequest;
        d_->MoveRequestTemplate = kMoveRequestTemplate;
        d_->FolderCollection = core::MakeCollection<FolderPtr>();
        d_->MailCollection = core::MakeCollection<MessagePtr>();
        InitializeProperties();
    });
}

CHotmail::~CHotmail() {
    // A destructor must not throw: a failure is still reported (and kept) but goes no further.
    try {
        core::Trap("CHotmail Class_Terminate Event", [&] {
            if (d_) d_->HttpRequest.Abort();
        });
    } catch (...) {
    }
}

std::string CHotmail::ServiceEntryURL() { return ServiceEntry(); }

void CHotmail::SetServiceEntryURL(const std::string& url) { ServiceEntry() = url; }

void CHotmail::InitializeProperties() {
    core::Trap("InitializeProperties Method", [&] {
        Impl& d = *d_;
        for (std::string* field : {&d.UserName, &d.Password, &d.LastReplyText, &d.LastReplyHeaders, &d.InboxURL,
                                   &d.ContactsURL, &d.OutboxURL, &d.SentItemsURL, &d.TrashURL, &d.RootFolderURL,
                                   &d.BaseRefURL, &d.AdPaneURL, &d.AllFolderInfo, &d.HotmailError}) {
            field->clear();
        }
    });
}

const std::string& CHotmail::UserName() const { return d_->UserName; }
void CHotmail::SetUserName(const std::string& New_Username) { d_->UserName = New_Username; }
const std::string& CHotmail::Password() const { return d_->Password; }
void CHotmail::SetPassword(const std::string& New_Password) { d_->Password = New_Password; }
const std::string& CHotmail::InboxURL() const { return d_->InboxURL; }
void CHotmail::SetInboxURL(const std::string& New_InboxURL) { d_->InboxURL = New_InboxURL; }
const std::string& CHotmail::ContactsURL() const { return d_->ContactsURL; }
void CHotmail::SetContactsURL(const std::string& New_ContactsURL) { d_->ContactsURL = New_ContactsURL; }
const std::string& CHotmail::OutboxURL() const { return d_->OutboxURL; }
void CHotmail::SetOutboxURL(const std::string& New_OutboxURL) { d_->OutboxURL = New_OutboxURL; }
const std::string& CHotmail::SentItemsURL() const { return d_->SentItemsURL; }
void CHotmail::SetSentItemsURL(const std::string& New_SentItemsURL) { d_->SentItemsURL = New_SentItemsURL; }
const std::string& CHotmail::TrashURL() const { return d_->TrashURL; }
void CHotmail::SetTrashURL(const std::string& New_TrashURL) { d_->TrashURL = New_TrashURL; }
const std::string& CHotmail::RootFolderURL() const { return d_->RootFolderURL; }
void CHotmail::SetRootFolderURL(const std::string& New_RootFolderURL) { d_->RootFolderURL = New_RootFolderURL; }
const std::string& CHotmail::BaseRefURL() const { return d_->BaseRefURL; }
void CHotmail::SetBaseRefURL(const std::string& New_BaseRefURL) { d_->BaseRefURL = New_BaseRefURL; }
const std::string& CHotmail::AdPaneURL() const { return d_->AdPaneURL; }
void CHotmail::SetAdPaneURL(const std::string& New_AdPaneURL) { d_->AdPaneURL = New_AdPaneURL; }
const std::string& CHotmail::AllFolderInfo() const { return d_->AllFolderInfo; }
void CHotmail::SetAllFolderInfo(const std::string& New_AllFolderInfo) { d_->AllFolderInfo = New_AllFolderInfo; }
const std::string& CHotmail::HotmailError() const { return d_->HotmailError; }
void CHotmail::SetHotmailError(const std::string& New_HotmailError) { d_->HotmailError = New_HotmailError; }

std::string CHotmail::GetErrorCode() const { return d_->HotmailError; }
FolderCollectionPtr CHotmail::GetFolderCollection() const { return d_->FolderCollection; }
MailCollectionPtr CHotmail::GetMailCollection() const { return d_->MailCollection; }

std::string CHotmail::Impl::Propfind(const std::string& url, const std::string& body) {
    HttpRequest.Open("PROPFIND", url, false);
    HttpRequest.Send(body);
    // Each part is stored as soon as it is read, so a reply without "X-Dav-Error" leaves the first two.
    LastReplyHeaders = HttpRequest.GetAllResponseHeaders();
    LastReplyText = HttpRequest.ResponseText();
    HotmailError = HttpRequest.GetResponseHeader(HotmailText::kDavErrorHeader);
    return LastReplyText;
}

std::string CHotmail::Impl::ActionReply() {
    std::string headers = HttpRequest.GetAllResponseHeaders();
    LastReplyText = HttpRequest.ResponseText();
    HotmailError = HttpRequest.GetResponseHeader(HotmailText::kDavErrorHeader);
    return headers;
}

}  // namespace mailservice
