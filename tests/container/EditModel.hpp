// A simple model of a backup's entries: a list, and every edit and lookup a walk over it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace container_tests {

struct ModelEntry {
    std::string domain;
    std::string path;
    std::uint16_t mode = 0;
    int protectionClass = 0;
    std::string target;
    std::string content; // of what is a file; as its plaintext
    std::int64_t size = 0;

    bool IsFile() const { return (mode & 0xE000) == 0x8000; }
    bool IsDirectory() const { return (mode & 0xE000) == 0x4000; }
    bool IsLink() const { return (mode & 0xE000) == 0xA000; }
    bool IsAt(const std::string &otherDomain, const std::string &otherPath) const {
        return domain == otherDomain && path == otherPath;
    }
    bool IsAtOrBelow(const std::string &otherDomain, const std::string &otherPath) const {
        return domain == otherDomain &&
               (otherPath.empty() || path == otherPath ||
                path.compare(0, otherPath.size() + 1, otherPath + "/") == 0);
    }
    bool operator==(const ModelEntry &) const = default;
};

class EditModel {
  public:
    EditModel(std::vector<ModelEntry> entries, bool encrypted)
        : entries_(std::move(entries)), encrypted_(encrypted) {}

    const std::vector<ModelEntry> &Entries() const { return entries_; }

    bool Store(const std::string &domain, const std::string &path, const std::string &content) {
        ModelEntry entry = newFile(domain, path, content);
        if (const ModelEntry *existing = Newest(domain, path);
            existing != nullptr && !existing->IsDirectory()) {
            if (encrypted_ && (!existing->IsFile() || existing->protectionClass != 4)) {
                return false;
            }
            entry.mode = existing->mode;
            entry.protectionClass = existing->protectionClass;
        }
        put(std::move(entry));
        return true;
    }
    bool Replace(const std::string &domain, const std::string &path, const std::string &content) {
        ModelEntry entry = newFile(domain, path, content);
        if (const ModelEntry *existing = Newest(domain, path);
            existing != nullptr && existing->IsFile()) {
            entry.mode = existing->mode;
            entry.protectionClass = existing->protectionClass;
        }
        put(std::move(entry));
        return true;
    }
    bool MakeDirectory(const std::string &domain, const std::string &path) {
        const ModelEntry *existing = Newest(domain, path);
        if (existing != nullptr && !existing->IsDirectory()) {
            return false;
        }
        const bool present = existing != nullptr;
        makeRoot(domain, path);
        if (!present) {
            entries_.push_back({domain, path, 040755, 0, {}, {}, 0});
        }
        return true;
    }
    bool Link(const std::string &domain, const std::string &path, const std::string &target) {
        const ModelEntry *existing = Newest(domain, path);
        if (existing != nullptr && !existing->IsLink()) {
            return false;
        }
        removeNewest(domain, path);
        makeRoot(domain, path);
        entries_.push_back({domain, path, 0120755, 0, target, {}, 0});
        return true;
    }
    void Remove(const std::string &domain, const std::string &path) {
        const ModelEntry *existing = Newest(domain, path);
        if (existing != nullptr && !existing->IsDirectory()) {
            removeNewest(domain, path);
        } else {
            removeTree(domain, path);
        }
    }
    void AddFile(const std::string &domain, const std::string &path, const std::string &content) {
        entries_.push_back(newFile(domain, path, content));
    }

    // The last entry of that path: what a lookup by file ID finds.
    const ModelEntry *Newest(const std::string &domain, const std::string &path) const {
        const auto found =
            std::find_if(entries_.rbegin(), entries_.rend(),
                         [&](const ModelEntry &entry) { return entry.IsAt(domain, path); });
        return found == entries_.rend() ? nullptr : &*found;
    }
    // The first: what a lookup by path finds.
    const ModelEntry *First(const std::string &domain, const std::string &path) const {
        const auto found =
            std::find_if(entries_.begin(), entries_.end(),
                         [&](const ModelEntry &entry) { return entry.IsAt(domain, path); });
        return found == entries_.end() ? nullptr : &*found;
    }
    std::vector<std::string> AtOrBelow(const std::string &domain, const std::string &path) const {
        std::vector<std::string> paths;
        for (const ModelEntry &entry : entries_) {
            if (entry.IsAtOrBelow(domain, path)) {
                paths.push_back(entry.path);
            }
        }
        return paths;
    }
    std::vector<std::string> Children(const std::string &domain, const std::string &path) const {
        const ModelEntry *directory = First(domain, path);
        std::vector<std::string> children;
        if (directory == nullptr || !directory->IsDirectory()) {
            return children;
        }
        const auto depth = path.empty() ? 0 : std::count(path.begin(), path.end(), '/') + 1;
        for (const std::string &below : AtOrBelow(domain, path)) {
            if (!below.empty() && std::count(below.begin(), below.end(), '/') == depth) {
                children.push_back(below);
            }
        }
        return children;
    }
    std::set<std::string> Domains() const {
        std::set<std::string> domains;
        for (const ModelEntry &entry : entries_) {
            domains.insert(entry.domain);
        }
        return domains;
    }
    std::int64_t TotalSize() const {
        std::int64_t total = 0;
        for (const ModelEntry &entry : entries_) {
            total += entry.size;
        }
        return total;
    }
    std::int64_t TotalFiles() const {
        return std::count_if(entries_.begin(), entries_.end(),
                             [](const ModelEntry &entry) { return entry.IsFile(); });
    }
    // What a manifest that holds one row for each file ID keeps: the last of each path.
    std::map<std::string, ModelEntry> ByPair() const {
        std::map<std::string, ModelEntry> result;
        for (const ModelEntry &entry : entries_) {
            result.insert_or_assign(entry.domain + "-" + entry.path, entry);
        }
        return result;
    }

  private:
    // AES-CBC with PKCS #7 padding always adds; an empty file stays empty.
    std::int64_t storedSize(const std::string &content) const {
        const auto size = static_cast<std::int64_t>(content.size());
        return encrypted_ && size > 0 ? size / 16 * 16 + 16 : size;
    }
    ModelEntry newFile(const std::string &domain, const std::string &path,
                       const std::string &content) const {
        return {domain, path, 0100644, 4, {}, content, storedSize(content)};
    }
    void put(ModelEntry entry) {
        const ModelEntry *existing = Newest(entry.domain, entry.path);
        const bool present = existing != nullptr;
        const bool directory = present && existing->IsDirectory();
        makeRoot(entry.domain, entry.path);
        if (directory) {
            removeTree(entry.domain, entry.path);
        } else if (present) {
            removeNewest(entry.domain, entry.path);
        } else {
            makeParents(entry.domain, entry.path);
        }
        entries_.push_back(std::move(entry));
    }
    void makeRoot(const std::string &domain, const std::string &path) {
        if (!path.empty() && First(domain, "") == nullptr) {
            entries_.push_back({domain, "", 040755, 0, {}, {}, 0});
        }
    }
    void makeParents(const std::string &domain, const std::string &path) {
        for (auto slash = path.find('/'); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            const std::string parent = path.substr(0, slash);
            if (First(domain, parent) == nullptr) {
                entries_.push_back({domain, parent, 040755, 0, {}, {}, 0});
            }
        }
    }
    void removeNewest(const std::string &domain, const std::string &path) {
        const ModelEntry *newest = Newest(domain, path);
        if (newest != nullptr) {
            entries_.erase(entries_.begin() + (newest - entries_.data()));
        }
    }
    void removeTree(const std::string &domain, const std::string &path) {
        std::erase_if(entries_,
                      [&](const ModelEntry &entry) { return entry.IsAtOrBelow(domain, path); });
    }

    std::vector<ModelEntry> entries_;
    bool encrypted_;
};

} // namespace container_tests
