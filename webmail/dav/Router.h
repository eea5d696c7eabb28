// The service's request router: maps each authenticated request onto the store and builds its reply.
#pragma once

#include <string>

#include "webmail/dav/DavReply.h"
#include "webmail/dav/DavRequest.h"
#include "webmail/dav/ServiceTarget.h"
#include "webmail/dav/ServiceUrls.h"
#include "webmail/store/MailDelivery.h"
#include "webmail/store/MaildirStore.h"

namespace webmail::dav {

class Router {
public:
    // A router over store for the given mail domain.
    Router(store::MaildirStore& store, std::string domain);

    // Carries out one request; never throws (store failures become 500 replies). Holds the store lock.
    DavReply Handle(const DavRequest& request);

private:
    DavReply Route(const DavRequest& request, const ServiceTarget& target);
    DavReply FolderRoot(const DavRequest& request, const store::Account& account, const ServiceUrls& urls);
    // The folder handlers are given the folder the route has already found.
    DavReply FolderPropfind(const DavRequest& request, const ServiceUrls& urls, const std::string& folderName,
                            const store::MaildirFolder& folder);
    static DavReply GetMessage(const store::MaildirFolder& folder, const ServiceTarget& target);
    // The reply serving an opened message.
    static DavReply MessageReply(store::MessageFile file);
    DavReply PatchMessage(const DavRequest& request, const ServiceUrls& urls, const ServiceTarget& target,
                          const store::MaildirFolder& folder);
    DavReply MoveMessages(const DavRequest& request, const store::Account& account, const ServiceUrls& urls,
                          const std::string& folderName, const store::MaildirFolder& source);
    DavReply SendMessage(const DavRequest& request, const store::Account& account);

    store::MaildirStore& store_;
    store::MailDelivery delivery_;
};

}  // namespace webmail::dav
