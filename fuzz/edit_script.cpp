// Reads the input as a script of edits, applies them one by one to a backup, and writes that
// out. What the parser read it can say again, and the written backup holds what the edited one
// does.
#include "fuzz/Backup.hpp"
#include "tools/kelvane/Diagnostics.hpp"
#include "tools/kelvane/EditScript.hpp"
#include "tools/kelvane/Editor.hpp"

#include <algorithm>
#include <set>

namespace {

using Fuzz::Require;

std::vector<tool::Operation> Parse(std::string_view text) try {
    return tool::ParseScript(text, "");
} catch (const tool::Failure &) {
    return {};
}

bool Same(const tool::Operation &a, const tool::Operation &b) {
    return a.kind == b.kind && a.domain == b.domain && a.path == b.path && a.argument == b.argument;
}

void CheckText(tool::Operation operation) {
    operation.origin.clear();
    const auto again = Parse(tool::ToText(operation));
    Require(again.size() == 1 && Same(again.front(), operation));
}

// Domain, path and target of all entries.
std::multiset<std::string> EntriesOf(const Fuzz::Container &container) {
    std::multiset<std::string> result;
    const CF::Array entries(KVManifestGetEntries(KVBackupContainerGetManifest(container.get())));
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const auto *const entry = static_cast<const KVManifestEntryClass *>(entries.GetAt(i));
        result.insert(CF::String::GetUTF8(KVManifestEntryGetDomainPathPair(entry)) + '\0' +
                      CF::String::GetUTF8(KVManifestEntryGetTarget(entry)));
    }
    return result;
}

std::span<const std::uint8_t> AsBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

// With the root of a domain and a link in it.
constexpr std::string_view kManifest("mbdb\5\0"
                                     "\0\1D\0\0\0\0\0\0\0\0\x41\xed\0\0\0\0\0\0\0\1"
                                     "\0\0\1\xf5\0\0\1\xf5\0\0\0\1\0\0\0\1\0\0\0\1"
                                     "\0\0\0\0\0\0\0\0\0\0"
                                     "\0\1D\0\1l\0\1t\0\0\0\0\xa1\xed\0\0\0\0\0\0\0\2"
                                     "\0\0\1\xf5\0\0\1\xf5\0\0\0\1\0\0\0\1\0\0\0\1"
                                     "\0\0\0\0\0\0\0\0\0\0",
                                     6 + 51 + 53);

Fuzz::Container OpenSmallBackup(const Fuzz::Workplace &work) {
    constexpr std::string_view kStatus =
        "<plist><dict><key>Version</key><string>2.4</string></dict></plist>";
    work.Write("backup/Status.plist", AsBytes(kStatus));
    work.Write("backup/Manifest.plist", AsBytes("<plist><dict/></plist>"));
    work.Write("backup/Manifest.mbdb", AsBytes(kManifest));
    const Fuzz::Container container = Fuzz::OpenBackup((work / "backup").string());
    Require(static_cast<bool>(container));
    return container;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size) {
    const Fuzz::Workplace work;
    const auto operations = Parse({reinterpret_cast<const char *>(bytes), size});
    std::for_each(operations.begin(), operations.end(), CheckText);
    const Fuzz::Container container = OpenSmallBackup(work);
    tool::Editor editor(container);
    const std::string content = work.Write("content", AsBytes("content"));
    for (tool::Operation operation : operations) {
        if (operation.kind == tool::Operation::Kind::Put) {
            operation.argument = content; // and no file of this machine
        }
        try {
            editor.Apply(operation);
        } catch (const tool::Failure &) {
        }
    }
    if (!operations.empty()) {
        const std::string path = (work / "export").string();
        const bool written = Fuzz::Export(container, path, KVBackupContainerWriteDirectory);
        Require(!written || EntriesOf(Fuzz::OpenBackup(path)) == EntriesOf(container));
    }
    return 0;
}
