#include "webmail/dav/Router.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>

#include "webmail/dav/ListedMessage.h"
#include "webmail/dav/MultistatusWriter.h"
#include "webmail/dav/PropfindReplies.h"
#include "webmail/dav/RequestParser.h"
#include "webmail/store/MessageFile.h"
#include "webmail/store/Submission.h"

namespace webmail::dav {
namespace {

using Kind = ServiceTarget::Kind;
using store::Account;
using store::MaildirEntry;
using store::MaildirFolder;
using store::MessageFile;

DavReply MethodNotAllowed(const char* allow) {
    DavReply reply = DavReply::Failure(405, "Method not allowed");
    reply.headers.emplace_back("Allow", allow);
    return reply;
}

DavReply Multistatus(std::string body, std::string davError = "200 No error") {
    DavReply reply;
    reply.status = 207;
    reply.davError = std::move(davError);
    reply.body = std::move(body);
    return reply;
}

DavReply PlainText(std::string body) {
    DavReply reply;
    reply.contentType = "text/plain; charset=\"utf-8\"";
    reply.body = std::move(body);
    return reply;
}

// A folder as the folder list shows it: its name, its messages and how many of them are unread.
PropfindReplies::Folder Counted(const std::string& name, const std::vector<MaildirEntry>& entries) {
    PropfindReplies::Folder info{name, entries.size()};
    info.unread = static_cast<std::size_t>(
        std::count_if(entries.begin(), entries.end(), [](const MaildirEntry& e) { return !e.Seen(); }));
    return info;
}

}  // namespace

Router::Router(store::MaildirStore& store, std::string domain) : store_(store), delivery_(store, std::move(domain)) {}

DavReply Router::Handle(const DavRequest& request) {
    const ServiceTarget target = RequestParser::Target(request.path);
    // No lock: every change to the store is a rename that never replaces a file and is retried when another
    // thread or process renamed the message first, so requests run side by side.
    try {
        return Route(request, target);
    } catch (const std::exception& e) {
        // The detail names paths of the store: it goes to the service's own log, the client gets the reason.
        std::fprintf(stderr, "store error on %s %s: %s\n", request.method.c_str(), request.path.c_str(), e.what());
        return DavReply::Failure(500, "Store error");
    }
}

DavReply Router::Route(const DavRequest& request, const ServiceTarget& target) {
    const std::string& method = request.method;
    if (target.kind == Kind::Unknown) return DavReply::Failure(404, "No such address");
    const ServiceUrls urls{request.baseUrl, request.user};
    const auto account = store_.FindAccount(request.user);
    if (!account) return DavReply::Failure(403, "No such account");

    if (target.kind == Kind::Entry) {
        if (method != "PROPFIND") return MethodNotAllowed("PROPFIND");
        if (request.propfindHeader) {
            std::string error;
            RequestParser::RequestedProperties(*request.propfindHeader, error);
            if (!error.empty()) return DavReply::Failure(400, error);
        }
        return Multistatus(PropfindReplies::Login(urls));
    }
    if (target.user != request.user) return DavReply::Failure(403, "Not your mailbox");

    switch (target.kind) {
        case Kind::FolderRoot:
            if (method != "PROPFIND") return MethodNotAllowed("PROPFIND");
            return FolderRoot(request, *account, urls);
        case Kind::Folder: {
            const auto folder = account->Folder(target.folder);
            if (!folder) return DavReply::Failure(404, "No such folder");
            if (method == "PROPFIND") return FolderPropfind(request, urls, target.folder, *folder);
            if (method == "BMOVE") return MoveMessages(request, *account, urls, target.folder, *folder);
            return MethodNotAllowed("PROPFIND, BMOVE");
        }
        case Kind::Message: {
            // Fetching inbox messages one by one is what a mail reader does most: the quick way first.
            if (method == "GET" && target.folder == Account::kInbox) {
                if (auto file = account->OpenInboxMessage(target.id)) return MessageReply(std::move(*file));
            }
            const auto folder = account->Folder(target.folder);
            if (!folder) return DavReply::Failure(404, "No such folder");
            if (method == "GET") return GetMessage(*folder, target);
            if (method == "PROPPATCH") return PatchMessage(request, urls, target, *folder);
            return MethodNotAllowed("GET, PROPPATCH");
        }
        case Kind::SendMessage:
            if (method != "POST") return MethodNotAllowed("POST");
            return SendMessage(request, *account);
        case Kind::Contacts:
            if (method != "PROPFIND") return MethodNotAllowed("PROPFIND");
            return Multistatus(MultistatusWriter().Text());
        case Kind::AdBar:
            if (method != "GET") return MethodNotAllowed("GET");
            return PlainText("tarnwick-webmail\n");
        default:
            return DavReply::Failure(404, "No such address");
    }
}

DavReply Router::FolderRoot(const DavRequest& request, const Account& account, const ServiceUrls& urls) {
    std::string error;
    const auto asked = RequestParser::RequestedProperties(request.body, error);
    if (!error.empty()) return DavReply::Failure(400, error);
    std::vector<PropfindReplies::Folder> folders;
    for (const std::string& name : account.FolderNames()) {
        const auto folder = account.Folder(name);
        folders.push_back(Counted(name, folder ? folder->List() : std::vector<MaildirEntry>{}));
    }
    return Multistatus(
        PropfindReplies::Folders(urls, folders, asked.value_or(PropfindReplies::DefaultFolderProperties())));
}

DavReply Router::FolderPropfind(const DavRequest& request, const ServiceUrls& urls, const std::string& folderName,
                                const MaildirFolder& folder) {
    std::string error;
    const auto asked = RequestParser::RequestedProperties(request.body, error);
    if (!error.empty()) return DavReply::Failure(400, error);
    const std::vector<MaildirEntry> entries = folder.List();
    if (asked) {
        // Named properties ask about the folder itself, as the folder list would show it.
        return Multistatus(PropfindReplies::Folders(urls, {Counted(folderName, entries)}, *asked));
    }
    std::vector<ListedMessage> messages;
    for (const MaildirEntry& entry : entries) {
        // A message removed by another program since the directory was read is simply not listed.
        const auto file = MessageFile::Open(entry.path);
        if (file) messages.push_back(ListedMessage::Read(entry, *file));
    }
    return Multistatus(PropfindReplies::Messages(urls, folderName, messages));
}

DavReply Router::GetMessage(const store::MaildirFolder& folder, const ServiceTarget& target) {
    auto file = folder.Open(target.id);
    if (!file) return DavReply::Failure(404, "No such message");
    return MessageReply(std::move(*file));
}

DavReply Router::MessageReply(MessageFile file) {
    DavReply reply;
    reply.contentType = "message/rfc822";
    reply.file = std::make_shared<MessageFile>(std::move(file));
    return reply;
}

DavReply Router::PatchMessage(const DavRequest& request, const ServiceUrls& urls, const ServiceTarget& target,
                              const MaildirFolder& folder) {
    std::string error;
    const auto read = RequestParser::ReadFlag(request.body, error);
    if (!read) return DavReply::Failure(400, error);
    if (!folder.SetSeen(target.id, *read)) return DavReply::Failure(404, "No such message");
    MultistatusWriter writer;
    auto prop = writer.AddResponse(urls.Message(target.folder, target.id));
    MultistatusWriter::AddProp(prop, "hm:read", "");
    return Multistatus(writer.Text());
}

DavReply Router::MoveMessages(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                              const std::string& folderName, const MaildirFolder& source) {
    const std::string type = RequestParser::MediaType(request.contentType);
    if (!type.empty() && type != "text/xml" && type != "application/xml") {
        return DavReply::Failure(415, "Content-Type must be text/xml");
    }
    const auto dest = RequestParser::Destination(request.destination);
    if (!dest) return DavReply::Failure(400, "Missing Destination");
    if (dest->kind != Kind::Folder) return DavReply::Failure(409, "Destination is not a folder address");
    if (dest->user != request.user) return DavReply::Failure(403, "Destination is not your mailbox");
    const auto destFolder = account.Folder(dest->folder);
    if (!destFolder) return DavReply::Failure(409, "No such destination folder");

    std::string error;
    const auto ids = RequestParser::MovedIds(request.body, error);
    if (!ids) return DavReply::Failure(400, error);
    MultistatusWriter writer;
    std::size_t missing = 0;
    for (const std::string& id : *ids) {
        if (!id.empty() && source.MoveTo(id, *destFolder)) {
            writer.AddStatus(urls.Message(dest->folder, id), "HTTP/1.1 201 Created");
        } else {
            ++missing;
            writer.AddStatus(urls.Message(folderName, id), "HTTP/1.1 404 Not Found");
        }
    }
    std::string davError = "200 No error";
    if (missing > 0) {
        davError = "404 " + std::to_string(missing) + " of " + std::to_string(ids->size()) + " messages not found";
    }
    return Multistatus(writer.Text(), davError);
}

DavReply Router::SendMessage(const DavRequest& request, const Account& account) {
    if (RequestParser::MediaType(request.contentType) != "message/rfc821") {
        return DavReply::Failure(415, "Content-Type must be message/rfc821");
    }
    std::string error;
    const auto submission = store::Submission::Parse(request.body, error);
    if (!submission) return DavReply::Failure(400, "Message refused: " + error);
    const store::MailDelivery::Result result =
        delivery_.Deliver(account, *submission, {request.clientAddress, std::time(nullptr)});
    return PlainText("delivered " + std::to_string(result.local.size()) + ", queued " +
                     std::to_string(result.queued.size()) + "\n");
}

}  // namespace webmail::dav
