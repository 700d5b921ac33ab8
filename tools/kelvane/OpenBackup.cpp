#include "OpenBackup.hpp"

#include "DerivationNotice.hpp"
#include "Diagnostics.hpp"
#include "KVBackupWriting.h"
#include "Password.hpp"
#include "support/cf/Dictionary.hpp"
#include "support/cf/Error.hpp"

#include <sys/stat.h>

namespace tool {

namespace {

constexpr const char *kBinaryManifestVersion = "2.4";

void requireReachable(const std::string &path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        throw Failure("'" + path + "' cannot be opened", SystemError());
    }
}

CF::String pathString(const std::string &path) {
    CF::String string(path);
    if (!string) {
        throw Failure("The path '" + path + "' is not UTF-8 text");
    }
    return string;
}

// Null with the error stored.
Container open(const BackupOptions &options, const CF::String &password, CF::Error &error) {
    const KVBackupOpenOptions bits =
        kKVBackupOpenKeepDeviceBoundKeysLocked | kKVBackupOpenOldEncryption |
        kKVBackupOpenUnusualManifests | kKVBackupOpenSearchFolder |
        (options.followLinks ? kKVBackupOpenFollowLinks : kKVBackupOpenDefault);
    const CF::String pathText = pathString(options.backup);
    CFErrorRef raised = nullptr;
    DerivationNotice notice;
    const KVBackupOpenCallBacks callBacks = {nullptr, &DerivationNotice::Report, &notice};
    Container container(CF::adopt,
                        KVBackupContainerOpen(kCFAllocatorDefault, pathText.get(), password.get(),
                                              bits, &callBacks, &raised));
    if (!container) {
        error = CF::Error::Adopt(raised);
    }
    return container;
}

void warnOfNotes(const Container &container) {
    if ((KVBackupContainerGetNotes(container.get()) & kKVBackupNoteManifestDecrypted) != 0) {
        PrintMessage("warning: Manifest.db of this encrypted backup is not encrypted itself, and "
                     "was used as it is");
    }
}

} // namespace

Container OpenBackup(const BackupOptions &options) {
    requireReachable(options.backup);
    CF::String password;
    Secret text;
    if (!options.passwordFile.empty()) {
        ReadPasswordFile(options.passwordFile, text);
        password = ToString(text);
    }
    CF::Error error;
    Container container = open(options, password, error);
    if (!container && options.passwordFile.empty() && IsPasswordRequired(error)) {
        AskPassword(text, error);
        password = ToString(text);
        container = open(options, password, error);
    }
    if (!container) {
        const int status = IsPasswordError(error) ? kPassword : kFailed;
        throw Failure(error).WithStatus(status);
    }
    warnOfNotes(container);
    if (KVBackupNeedsRecovery(pathString(options.backup).get())) {
        PrintMessage(
            "warning: a change of the backup was not brought to its end; see 'kelvane recover'");
    }
    return container;
}

CF::Error MetadataError(const Container &container, const char *fileName) {
    return CF::Error::Adopt(
        KVBackupContainerCopyMetadataError(container.get(), CF::String(fileName).get()));
}

std::string SnapshotState(const Container &container) {
    const auto status = CF::Dictionary::Adopt(KVBackupContainerCopyStatusDict(container.get()));
    return status.Get<CF::String>(CFSTR("SnapshotState")).GetUTF8();
}

bool UsesDatabase(const Container &container) {
    const auto status = CF::Dictionary::Adopt(KVBackupContainerCopyStatusDict(container.get()));
    return status.Get<CF::String>(CFSTR("Version")).GetUTF8() != kBinaryManifestVersion;
}

} // namespace tool
