#include "webmail/dav/Router.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <mutex>

#include <pugixml.hpp>

#include "core/Ascii.h"
#include "webmail/store/MessageFile.h"
#include "webmail/dav/MultistatusWriter.h"
#include "webmail/dav/PropfindReplies.h"
#include "webmail/store/Submission.h"
#include "webmail/dav/UrlCodec.h"

namespace fs = std::filesystem;
using Kind = ServiceTarget::Kind;

namespace {

DavReply methodNotAllowed(const char* allow) {
    DavReply reply = DavReply::failure(405, "Method not allowed");
    reply.headers.emplace_back("Allow", allow);
    return reply;
}

DavReply multistatus(std::string body, std::string davError = "200 No error") {
    DavReply reply;
    reply.status = 207;
    reply.davError = std::move(davError);
    reply.body = std::move(body);
    return reply;
}

// The media type of a Content-Type value, lower case, without parameters.
std::string mediaType(const std::optional<std::string>& contentType) {
    if (!contentType) return {};
    std::string type = contentType->substr(0, contentType->find(';'));
    std::erase_if(type, core::Ascii::IsSpace);
    return core::Ascii::LowerCase(std::move(type));
}

std::string localName(pugi::xml_node node) {
    const std::string name = node.name();
    const std::size_t colon = name.find(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const std::size_t last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

// A D:href of a move request names a message by id; a full message address is taken by its last segment.
std::string idOfHref(const std::string& href) {
    const std::string text = trimmed(href);
    const std::size_t slash = text.rfind('/');
    if (slash == std::string::npos) return text;
    return UrlCodec::decode(text.substr(slash + 1)).value_or(std::string());
}

}  // namespace

Router::Router(MaildirStore& store, std::string domain) : store_(store), delivery_(store, std::move(domain)) {}

DavReply Router::handle(const DavRequest& request) {
    const ServiceTarget target = ServiceTarget::parse(request.path);
    std::lock_guard lock(store_.mutex());
    try {
        return route(request, target);
    } catch (const std::exception& e) {
        return DavReply::failure(500, std::string("Store error: ") + e.what());
    }
}

DavReply Router::route(const DavRequest& request, const ServiceTarget& target) {
    const std::string& method = request.method;
    if (target.kind == Kind::Unknown) return DavReply::failure(404, "No such address");
    ServiceUrls urls{request.baseUrl, request.user};
    const auto account = store_.account(request.user);
    if (!account) return DavReply::failure(403, "No such account");

    if (target.kind == Kind::Entry) {
        if (method != "PROPFIND") return methodNotAllowed("PROPFIND");
        if (request.propfindHeader) {
            std::string error;
            PropfindReplies::requested(*request.propfindHeader, error);
            if (!error.empty()) return DavReply::failure(400, error);
        }
        return multistatus(PropfindReplies::login(urls));
    }
    if (target.user != request.user) return DavReply::failure(403, "Not your mailbox");

    switch (target.kind) {
        case Kind::FolderRoot:
            if (method != "PROPFIND") return methodNotAllowed("PROPFIND");
            return folderRoot(request, *account, urls);
        case Kind::Folder:
            if (!account->folder(target.folder)) return DavReply::failure(404, "No such folder");
            if (method == "PROPFIND") return folderPropfind(request, *account, urls, target.folder);
            if (method == "BMOVE") return moveMessages(request, *account, urls, target.folder);
            return methodNotAllowed("PROPFIND, BMOVE");
        case Kind::Message:
            if (!account->folder(target.folder)) return DavReply::failure(404, "No such folder");
            if (method == "GET") return getMessage(*account, target);
            if (method == "PROPPATCH") return patchMessage(request, *account, urls, target);
            return methodNotAllowed("GET, PROPPATCH");
        case Kind::SendMessage:
            if (method != "POST") return methodNotAllowed("POST");
            return sendMessage(request, *account);
        case Kind::Contacts:
            if (method != "PROPFIND") return methodNotAllowed("PROPFIND");
            return multistatus(MultistatusWriter().str());
        case Kind::AdBar: {
            if (method != "GET") return methodNotAllowed("GET");
            DavReply reply;
            reply.contentType = "text/plain; charset=\"utf-8\"";
            reply.body = "tarnwick-webmail\n";
            return reply;
        }
        default:
            return DavReply::failure(404, "No such address");
    }
}

DavReply Router::folderRoot(const DavRequest& request, const Account& account, const ServiceUrls& urls) {
    std::string error;
    const auto asked = PropfindReplies::requested(request.body, error);
    if (!error.empty()) return DavReply::failure(400, error);
    std::vector<PropfindReplies::Folder> folders;
    for (const std::string& name : account.folderNames()) {
        PropfindReplies::Folder info{name};
        if (auto folder = account.folder(name)) {
            for (const MaildirEntry& e : folder->list()) {
                ++info.total;
                if (!e.seen()) ++info.unread;
            }
        }
        folders.push_back(std::move(info));
    }
    return multistatus(PropfindReplies::folders(urls, folders, asked.value_or(PropfindReplies::defaultFolderProps())));
}

DavReply Router::folderPropfind(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                                    const std::string& folderName) {
    std::string error;
    const auto asked = PropfindReplies::requested(request.body, error);
    if (!error.empty()) return DavReply::failure(400, error);
    const MaildirFolder folder = *account.folder(folderName);
    const std::vector<MaildirEntry> entries = folder.list();
    if (asked) {
        // Named properties ask about the folder itself, as the folder list would show it.
        PropfindReplies::Folder info{folderName, entries.size()};
        info.unread = static_cast<std::size_t>(
            std::count_if(entries.begin(), entries.end(), [](const MaildirEntry& e) { return !e.seen(); }));
        return multistatus(PropfindReplies::folders(urls, {info}, *asked));
    }
    std::vector<PropfindReplies::Message> messages;
    for (const MaildirEntry& entry : entries) {
        // A message removed by another program since the directory was read is simply not listed.
        const auto file = MessageFile::open(entry.path);
        if (!file) continue;
        const MessageFile::Facts facts = file->facts();
        ListedMessage summary = ListedMessage::parse(file->header(), file->modified());
        summary.hasAttachment = summary.hasAttachment || facts.attachmentLine;
        messages.push_back({entry, std::move(summary), facts.servedSize});
    }
    return multistatus(PropfindReplies::messages(urls, folderName, messages));
}

DavReply Router::getMessage(const Account& account, const ServiceTarget& target) {
    const auto entry = account.folder(target.folder)->find(target.id);
    auto file = entry ? MessageFile::open(entry->path) : std::nullopt;
    if (!file) return DavReply::failure(404, "No such message");
    DavReply reply;
    reply.contentType = "message/rfc822";
    reply.file = std::make_shared<MessageFile>(std::move(*file));
    return reply;
}

DavReply Router::patchMessage(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                                  const ServiceTarget& target) {
    pugi::xml_document doc;
    if (!doc.load_buffer(request.body.data(), request.body.size())) {
        return DavReply::failure(400, "Malformed XML");
    }
    const auto root = doc.document_element();
    if (localName(root) != "propertyupdate") return DavReply::failure(400, "Body is not a propertyupdate");
    std::optional<bool> read;
    for (auto action : root.children()) {
        const std::string verb = localName(action);
        if (verb != "set" && verb != "remove") continue;
        for (auto prop : action.children()) {
            if (localName(prop) != "prop") continue;
            for (auto p : prop.children()) {
                if (localName(p) != "read") continue;
                const std::string value = trimmed(p.text().get());
                if (verb == "remove") {
                    read = false;
                } else if (value == "1" || value == "0") {
                    read = value == "1";
                } else {
                    return DavReply::failure(400, "hm:read must be 0 or 1");
                }
            }
        }
    }
    if (!read) return DavReply::failure(400, "No hm:read property to update");
    if (!account.folder(target.folder)->setSeen(target.id, *read)) {
        return DavReply::failure(404, "No such message");
    }
    MultistatusWriter writer;
    auto prop = writer.addResponse(urls.message(target.folder, target.id));
    MultistatusWriter::addProp(prop, "hm:read", "");
    return multistatus(writer.str());
}

DavReply Router::moveMessages(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                                  const std::string& folderName) {
    const std::string type = mediaType(request.contentType);
    if (!type.empty() && type != "text/xml" && type != "application/xml") {
        return DavReply::failure(415, "Content-Type must be text/xml");
    }
    if (!request.destination || trimmed(*request.destination).empty()) {
        return DavReply::failure(400, "Missing Destination");
    }
    const auto destPath = UrlCodec::pathOfUrl(trimmed(*request.destination));
    const ServiceTarget dest = destPath ? ServiceTarget::parse(*destPath) : ServiceTarget{};
    if (dest.kind != Kind::Folder) return DavReply::failure(409, "Destination is not a folder address");
    if (dest.user != request.user) return DavReply::failure(403, "Destination is not your mailbox");
    const auto destFolder = account.folder(dest.folder);
    if (!destFolder) return DavReply::failure(409, "No such destination folder");

    pugi::xml_document doc;
    if (!doc.load_buffer(request.body.data(), request.body.size())) {
        return DavReply::failure(400, "Malformed XML");
    }
    const auto root = doc.document_element();
    if (localName(root) != "move") return DavReply::failure(400, "Body is not a move document");
    const MaildirFolder source = *account.folder(folderName);
    MultistatusWriter writer;
    std::size_t total = 0, missing = 0;
    for (auto target : root.children()) {
        if (localName(target) != "target") continue;
        for (auto href : target.children()) {
            if (localName(href) != "href") continue;
            ++total;
            const std::string id = idOfHref(href.text().get());
            if (!id.empty() && source.moveTo(id, *destFolder)) {
                writer.addStatus(urls.message(dest.folder, id), "HTTP/1.1 201 Created");
            } else {
                ++missing;
                writer.addStatus(urls.message(folderName, id), "HTTP/1.1 404 Not Found");
            }
        }
    }
    std::string davError = "200 No error";
    if (missing > 0) {
        davError = "404 " + std::to_string(missing) + " of " + std::to_string(total) + " messages not found";
    }
    return multistatus(writer.str(), davError);
}

DavReply Router::sendMessage(const DavRequest& request, const Account& account) {
    if (mediaType(request.contentType) != "message/rfc821") {
        return DavReply::failure(415, "Content-Type must be message/rfc821");
    }
    std::string error;
    const auto submission = Submission::parse(request.body, error);
    if (!submission) return DavReply::failure(400, "Message refused: " + error);
    const MailDelivery::Result result =
        delivery_.deliver(account, *submission, {request.clientAddress, std::time(nullptr)});
    DavReply reply;
    reply.contentType = "text/plain; charset=\"utf-8\"";
    reply.body =
        "delivered " + std::to_string(result.local.size()) + ", queued " + std::to_string(result.queued.size()) + "\n";
    return reply;
}
