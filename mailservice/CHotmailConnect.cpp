// Log-in and folder discovery.
#include "core/MessageBox.h"
#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"

namespace mailservice {

bool CHotmail::Connect() {
    return core::Trap("Connect Method", [&] {
        Impl& d = *d_;
        d.HttpRequest.Open("PROPFIND", ServiceEntryURL(), false);
        d.HttpRequest.SetUserAgent(HotmailText::kUserAgent);
        d.HttpRequest.SetCredentials(d.UserName, d.Password, true);
        const bool result = true;
        // The folder-address request travels as the value of a header named after the method; no body.
        d.HttpRequest.SetRequestHeader("PROPFIND", d.FolderUrlsRequest);
        d.HttpRequest.Send();

        // From here on nothing stops the log-in: a reply the session cannot read leaves the addresses alone,
        // and the caller learns of it only from what stays empty.
        bool allRead = core::SkipOnError([&] { d.LastReplyText = d.HttpRequest.ResponseText(); });
        allRead &= core::SkipOnError([&] { d.LastReplyHeaders = d.HttpRequest.GetAllResponseHeaders(); });
        allRead &=
            core::SkipOnError([&] { d.HotmailError = d.HttpRequest.GetResponseHeader(HotmailText::kDavErrorHeader); });
        if (!allRead) {
            d.HttpRequest.Abort();
            return result;
        }
        // Each reports its own failure under its own label; the folder listing runs even if the addresses
        // could not be read.
        core::SkipOnError([&] { RetrievFolderURLs(); });
        core::SkipOnError([&] { ParseFolderInfo(); });
        return result;
    });
}

bool CHotmail::RetrievFolderURLs() {
    return core::Trap("RetrievFolderURLs Method", [&] {
        Impl& d = *d_;
        if (!d.ReplyDocument.loadXML(d.LastReplyText)) {
            core::MessageBox::Show(d.ReplyDocument.parseErrorReason());
            d.HotmailError = HotmailText::kInvalidResponse;
            return false;
        }
        // Only positions count, never element names: the first entry's address, then the first seven
        // properties of its property list. Each field is stored as soon as it is read.
        const platform::XmlNode entry = d.ReplyDocument.documentElement().childNodes().item(0);
        d.BaseRefURL = entry.childNodes().item(0).text();
        const platform::XmlNodeList props = entry.childNodes().item(1).childNodes().item(0).childNodes();
        std::string* const targets[] = {&d.AdPaneURL,    &d.ContactsURL, &d.InboxURL,     &d.OutboxURL,
                                        &d.SentItemsURL, &d.TrashURL,    &d.RootFolderURL};
        std::int32_t position = 0;
        for (std::string* target : targets) *target = props.item(position++).text();
        return true;
    });
}

}  // namespace mailservice
