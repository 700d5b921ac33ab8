#include "Commands.hpp"
#include "EntryRecord.hpp"
#include "ExitStatus.hpp"
#include "JSON.hpp"
#include "KVManifest.h"
#include "Output.hpp"
#include "Quoting.hpp"
#include "Selection.hpp"
#include "Units.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace tool {

namespace {

void listDomains(const Container &container, bool json) {
    const auto domains =
        CF::Array::Adopt(KVManifestCopyDomainsList(KVBackupContainerGetManifest(container.get())));
    for (CFIndex i = 0; i < domains.GetCount(); ++i) {
        const std::string domain = CF::String::Cast(domains.GetAt(i)).GetUTF8();
        PrintLine(json ? Serialize({{"domain", domain}}) : ForListing(domain, OutputIsTerminal()));
    }
}

std::string detailText(const EntryRecord &record) {
    std::array<char, 96> text;
    std::snprintf(text.data(), text.size(), "%s %5d %5d %14lld ", ModeText(record).c_str(),
                  record.uid, record.gid, static_cast<long long>(record.size));
    return text.data() + DateText(record.modified) + "  ";
}

// name is what stands for the entry in this listing.
void printEntry(const EntryRecord &record, const std::string &name, const ListOptions &options) {
    if (options.json) {
        PrintLine(ToJSON(record));
        return;
    }
    const bool terminal = OutputIsTerminal();
    std::string line = options.detailed ? detailText(record) : std::string();
    line += ForListing(name, terminal);
    if (options.detailed && record.type == EntryType::Symlink) {
        line += " -> " + ForListing(record.target, terminal);
    }
    PrintLine(line);
}

std::size_t depthOf(const std::string &path) {
    return path.empty() ? 0
                        : 1 + static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
}

void listAll(const Container &container, const ListOptions &options) {
    const CF::Array entries = AllEntries(container);
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        Entry *entry = EntryAt(entries, i);
        printEntry(Describe(entry), FullPath(entry), options);
    }
}

// The domain's root has an empty path.
std::string pathText(const EntryRecord &record) { return record.path.empty() ? "." : record.path; }

void listRecursively(const CF::Array &entries, const ListOptions &options) {
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const EntryRecord record = Describe(EntryAt(entries, i));
        printEntry(record, pathText(record), options);
    }
}

// The direct children of a directory, by name. A path that is no directory shows itself.
void listChildren(const CF::Array &entries, const std::string &path, const ListOptions &options) {
    const std::size_t depth = depthOf(path);
    for (CFIndex i = 0; i < entries.GetCount(); ++i) {
        const EntryRecord record = Describe(EntryAt(entries, i));
        const std::size_t entryDepth = depthOf(record.path);
        if (entryDepth == depth + 1) {
            printEntry(record, record.path.substr(path.empty() ? 0 : path.size() + 1), options);
        } else if (entryDepth == depth && record.type != EntryType::Directory) {
            printEntry(record, pathText(record), options);
        }
    }
}

} // namespace

int RunList(const Container &container, const ListOptions &options) {
    if (options.all || (options.recursive && !options.domain)) {
        listAll(container, options);
    } else if (!options.domain) {
        listDomains(container, options.json);
    } else {
        const CF::Array entries = EntriesAt(container, *options.domain, options.path);
        if (options.recursive) {
            listRecursively(entries, options);
        } else {
            listChildren(entries, WithoutTrailingSlashes(options.path), options);
        }
    }
    return kDone;
}

} // namespace tool
