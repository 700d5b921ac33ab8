#include "Commands.hpp"
#include "Diagnostics.hpp"
#include "KVManifest.h"
#include "Selection.hpp"
#include "support/cf/Array.hpp"
#include "support/cf/String.hpp"

#include <algorithm>
#include <set>

namespace tool {

namespace {

std::set<std::string> domainsOf(const Container &container) {
    const auto texts =
        CF::Array::Adopt(KVManifestCopyDomainsList(KVBackupContainerGetManifest(container.get())));
    std::set<std::string> domains;
    for (CFIndex i = 0; i < texts.GetCount(); ++i) {
        domains.insert(CF::String::GetUTF8(static_cast<CFStringRef>(texts.GetAt(i))));
    }
    return domains;
}

// Of the manifest in memory; the backup stays as it is.
void keepOnly(const Container &container, const std::vector<std::string> &wanted) {
    const std::set<std::string> domains = domainsOf(container);
    for (const std::string &domain : wanted) {
        if (!domains.contains(domain)) {
            throw Failure("There is no domain '" + domain + "' in the backup");
        }
    }
    for (const std::string &domain : domains) {
        if (std::ranges::find(wanted, domain) == wanted.end()) {
            KVBackupContainerRemovePath(container.get(), CF::String(domain).get(), CFSTR(""));
        }
    }
}

} // namespace

int RunDecrypt(const BackupOptions &backup, const DecryptOptions &options) {
    CheckBackupOutput(options.output, backup);
    const Container container = OpenBackup(backup);
    WarnOfUnreadChanges(container);
    if (!KVBackupContainerIsEncrypted(container.get())) {
        throw Failure("The backup is not encrypted; 'kelvane export' writes a copy of it");
    }
    if (!options.domains.empty()) {
        keepOnly(container, options.domains);
    }
    BackupOutputOptions output = options.output;
    output.decrypted = true;
    return WriteBackup(container, output);
}

} // namespace tool
