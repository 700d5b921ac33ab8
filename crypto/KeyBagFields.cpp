// Blocks of a keybag and the fields inside them.
#include "MB/KeyBag.hpp"

#include "Kelvane/Error.hpp"
#include "crypto/KeyBagRecords.hpp"

#include <algorithm>

namespace MB {
namespace {

constexpr const char *kUUIDTag = "UUID";

// The field's value, which must have the size.
const std::vector<std::uint8_t> &fieldOf(const KeyBag::Block &block, const char *tag,
                                         std::size_t size) {
    const auto found = block.find(tag);
    if (found == block.end()) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Missing %s field"), tag);
    }
    if (found->second.size() != size) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Invalid %s field"), tag);
    }
    return found->second;
}

KeyBag::Block blockOpenedBy(const KeyBag::UUIDBytes &uuid) {
    KeyBag::Block block;
    block.emplace(kUUIDTag, std::vector<std::uint8_t>(uuid.begin(), uuid.end()));
    return block;
}

} // namespace

template <std::size_t N>
std::array<std::uint8_t, N> KeyBag::getSequence(const Block &block, const char *tag) {
    const auto &value = fieldOf(block, tag, N);
    std::array<std::uint8_t, N> bytes;
    std::copy(value.begin(), value.end(), bytes.begin());
    return bytes;
}
template KV_VISIBLE std::array<std::uint8_t, 16> KeyBag::getSequence<16>(const Block &,
                                                                         const char *);
template KV_VISIBLE std::array<std::uint8_t, 20> KeyBag::getSequence<20>(const Block &,
                                                                         const char *);
template KV_VISIBLE std::array<std::uint8_t, 40> KeyBag::getSequence<40>(const Block &,
                                                                         const char *);

template <class Integer>
Integer KeyBag::getScalar(const Block &block, const char *tag) {
    static_assert(sizeof(Integer) == sizeof(std::uint32_t));
    return Kelvane::keybag::ReadBigEndian32(fieldOf(block, tag, sizeof(Integer)));
}
template KV_VISIBLE unsigned int KeyBag::getScalar<unsigned int>(const Block &, const char *);

KeyBag::ManifestInfo::ManifestInfo(const Block &block) : ManifestInfo(block, OldKeyBags::Refuse) {}

KeyBag::ManifestInfo::ManifestInfo(const Block &block, OldKeyBags old)
    : uuid(getSequence<16>(block, kUUIDTag)), hmck(getSequence<40>(block, "HMCK")),
      wrap(getScalar<unsigned int>(block, "WRAP")), salt(getSequence<20>(block, "SALT")),
      iterations(getScalar<unsigned int>(block, "ITER")) {
    const bool accepted = old == OldKeyBags::Accept;
    if (!accepted || block.contains("DPWT")) {
        dpwt = getScalar<unsigned int>(block, "DPWT");
    }
    onePass = accepted && !block.contains("DPIC") && !block.contains("DPSL");
    if (!onePass) {
        dpic = getScalar<unsigned int>(block, "DPIC");
        dpsl = getSequence<20>(block, "DPSL");
    }
}

KeyBag::LockedKey::LockedKey(const Block &block)
    : uuid(getSequence<16>(block, kUUIDTag)),
      protectionClass(getScalar<unsigned int>(block, "CLAS")),
      wrap(getScalar<unsigned int>(block, "WRAP")), keyType(getScalar<unsigned int>(block, "KTYP")),
      wrappedKey(getSequence<40>(block, "WPKY")) {}

KeyBag::UUIDBytes KeyBag::getUUID(RecordPosition position) const {
    if (position == records_.end() || position->first != kUUIDTag) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Missing UUID field"));
    }
    UUIDBytes uuid;
    if (position->second.size() != uuid.size()) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr, CFSTR("Invalid UUID field"));
    }
    std::copy(position->second.begin(), position->second.end(), uuid.begin());
    return uuid;
}

// In a loop, for a hostile keybag may consist of thousands of blocks.
void KeyBag::parseNextBlock(const UUIDBytes &uuid, RecordPosition position, RecordPosition end,
                            std::vector<Block> &blocks) const {
    blocks.push_back(blockOpenedBy(uuid));
    for (; position != end; ++position) {
        if (position->first == kUUIDTag) {
            blocks.push_back(blockOpenedBy(getUUID(position)));
        } else {
            blocks.back().emplace(*position); // the first of a tag stays
        }
    }
}

} // namespace MB
