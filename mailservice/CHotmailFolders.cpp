// Folder listing.
#include <algorithm>

#include "core/Trap.h"
#include "mailservice/CHotmail.h"
#include "mailservice/CHotmailImpl.h"

namespace mailservice {

std::string CHotmail::GetFolder(const std::string& folderUrl) {
    return core::Trap("GetFolder Method", [&] { return d_->Propfind(folderUrl, d_->FolderInfoRequest); });
}

std::string CHotmail::GetAllFolderInfo() {
    return core::Trap("GetAllFolderInfo Method",
                      [&] { return d_->Propfind(d_->RootFolderURL, d_->FolderInfoRequest); });
}

void CHotmail::ParseFolderInfo() {
    core::Trap("ParseFolderInfo Method", [&] {
        platform::XmlDocument doc;
        // Not examined: a reply that is not XML simply lists no folders.
        (void)doc.loadXML(GetAllFolderInfo());
        const platform::XmlNodeList entries = doc.selectNodes("//D:response");
        const std::int32_t count = std::min<std::int32_t>(entries.length(), kMaxListEntries);
        // Appends to what earlier runs left; a malformed entry ends the run with the earlier folders kept.
        for (std::int32_t i = 0; i < count; ++i) {
            auto folder = std::make_shared<CHotmailFolder>();
            const platform::XmlNode entry = entries.item(i);
            folder->fUrl = entry.childNodes().item(0).text();
            // The second property answers the second name asked for, D:displayname.
            folder->fName = entry.childNodes().item(1).childNodes().item(0).childNodes().item(1).text();
            d_->FolderCollection->Add(folder);
        }
    });
}

}  // namespace mailservice
