// The service's request router: maps each authenticated request onto the store and builds its reply.
#pragma once

#include <string>

#include "webmail/dav/DavRequest.h"
#include "webmail/store/MailDelivery.h"
#include "webmail/store/MaildirStore.h"
#include "webmail/dav/ServiceUrls.h"

class Router {
public:
    // A service over store for the given mail domain.
    Router(MaildirStore& store, std::string domain);

    // Carries out one request; never throws (store failures become 500 replies). Holds the store lock.
    DavReply handle(const DavRequest& request);

private:
    DavReply route(const DavRequest& request, const ServiceTarget& target);
    DavReply folderRoot(const DavRequest& request, const Account& account, const ServiceUrls& urls);
    DavReply folderPropfind(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                            const std::string& folderName);
    DavReply getMessage(const Account& account, const ServiceTarget& target);
    DavReply patchMessage(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                          const ServiceTarget& target);
    DavReply moveMessages(const DavRequest& request, const Account& account, const ServiceUrls& urls,
                          const std::string& folderName);
    DavReply sendMessage(const DavRequest& request, const Account& account);

    MaildirStore& store_;
    MailDelivery delivery_;
};
