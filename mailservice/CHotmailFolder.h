// One folder of the account: its display name and address. A plain record.
#pragma once

#include <string>

namespace mailservice {

struct CHotmailFolder {
    std::string fName;  // display name
    std::string fUrl;   // address
};

}  // namespace mailservice
