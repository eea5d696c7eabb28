// Operations on single messages, and sending.
#include <cstdint>
#include <memory>
#include <string_view>

#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"

namespace mailservice {

std::string CHotmail::GetMessage(const std::string& strMessageURL) {
    return core::Trap("GetMessage Method", [&] {
        // The status is not looked at and nothing is stored: an error page comes back as the message.
        d_->HttpRequest.Open("GET", strMessageURL, false);
        d_->HttpRequest.Send();
        // Taken over, not copied: the text goes on into the message record.
        return d_->HttpRequest.TakeResponseText();
    });
}

core::SpoolText CHotmail::GetMessage(const std::string& strMessageURL, const std::shared_ptr<core::SpoolFile>& spool) {
    return core::Trap("GetMessage Method", [&] {
        d_->HttpRequest.Open("GET", strMessageURL, false);
        const std::uint64_t start = spool->Size();
        d_->HttpRequest.SetResponseSink([&](std::string_view piece) { spool->Append(piece); });
        d_->HttpRequest.Send();
        return core::SpoolText(spool, start, spool->Size() - start);
    });
}

void CHotmail::FlagMailRead(const std::string& ukey, const std::string& currentfolder) {
    core::Trap("FlagMailRead Method", [&] { SetReadFlag(d_->MarkReadRequest, ukey, currentfolder); });
}

void CHotmail::FlagMailUnread(const std::string& ukey, const std::string& currentfolder) {
    core::Trap("FlagMailUnread Method", [&] { SetReadFlag(d_->MarkUnreadRequest, ukey, currentfolder); });
}

void CHotmail::SetReadFlag(const std::string& request, const std::string& ukey, const std::string& currentfolder) {
    d_->HttpRequest.Open("PROPPATCH", ukey, false);
    d_->HttpRequest.Send(request);
    d_->LastReplyText = d_->HttpRequest.ResponseText();
    d_->HotmailError = d_->HttpRequest.GetResponseHeader(HotmailText::kDavErrorHeader);
    // The folder is listed again, so the mail collection reflects the change.
    ParseMailboxInfo(currentfolder);
}

std::string CHotmail::DeleteMail(const IdCollectionPtr& uMail, const std::string& mFolder) {
    // Deleting is a move into the trash folder.
    return core::Trap("DeleteMail Method", [&] { return d_->MoveRequest(uMail, mFolder, d_->TrashURL); });
}

std::string CHotmail::MoveMail(const std::string& uMail, const std::string& mSrcFolder,
                               const std::string& mDestFolder) {
    return core::Trap("MoveMail Method", [&] {
        auto ids = core::MakeCollection<std::string>();
        ids->Add(uMail);
        return d_->MoveRequest(ids, mSrcFolder, mDestFolder);
    });
}

std::string CHotmail::Impl::MoveRequest(const IdCollectionPtr& ids, const std::string& fromFolder,
                                        const std::string& toFolder) {
    if (!ids) core::Raise(core::ErrorNumber::kObjectNotSet);
    platform::XmlDocument doc;
    (void)doc.loadXML(MoveRequestTemplate);
    platform::XmlNode target = doc.documentElement().childNodes().item(0);
    for (std::int32_t k = 1; k <= ids->Count(); ++k) {
        platform::XmlNode href = doc.createElement("D:href");
        href.setText(ids->Item(k));
        target.appendChild(href);
    }
    HttpRequest.Open("BMOVE", fromFolder, false);
    HttpRequest.SetRequestHeader("Destination", toFolder);
    HttpRequest.SetRequestHeader("Content-Type", "text/xml");
    HttpRequest.Send(doc.xml());
    return ActionReply();
}

std::string CHotmail::SendMail(const std::string& strMessage) {
    return core::Trap("SendMail Method", [&] {
        d_->HttpRequest.Open("POST", d_->OutboxURL, false);
        d_->HttpRequest.SetRequestHeader("Content-Type", "message/rfc821");
        d_->HttpRequest.Send(strMessage);
        return d_->ActionReply();
    });
}

std::string CHotmail::SendMail(const core::TextPiecesSource& strMessage, std::uint64_t size) {
    return core::Trap("SendMail Method", [&] {
        d_->HttpRequest.Open("POST", d_->OutboxURL, false);
        d_->HttpRequest.SetRequestHeader("Content-Type", "message/rfc821");
        d_->HttpRequest.Send(strMessage, size);
        return d_->ActionReply();
    });
}

}  // namespace mailservice
