#include "manifest/TextCache.hpp"

#include "manifest/KVManifestEntryClass.hpp"
#include "support/cf/UTF8.hpp"

namespace Kelvane {

namespace {

// Ten times what backups hold. More come only from a manifest made to fill memory.
constexpr std::size_t kMaximumTexts = 10000;

} // namespace

StringPointer TextFromUTF8(std::string_view bytes) {
    if (bytes.empty()) {
        return EmptyString();
    }
    return CF::Adopt(CF::CreateFromUTF8(bytes));
}

StringPointer TextCache::Get(std::string_view bytes) {
    if (last_ && bytes == lastBytes_) {
        return last_;
    }
    auto found = texts_.find(bytes);
    if (found == texts_.end()) {
        StringPointer text = TextFromUTF8(bytes);
        if (!text) {
            return text;
        }
        if (texts_.size() >= kMaximumTexts) {
            texts_.clear();
        }
        found = texts_.emplace(bytes, std::move(text)).first;
    }
    lastBytes_ = bytes;
    last_ = found->second;
    return last_;
}

} // namespace Kelvane
