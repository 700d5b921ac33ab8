#include "archive/DeviceRecordRevision.hpp"

#include "archive/DeviceRecordLayout.hpp"
#include "support/cf/CF.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace Kelvane {

namespace {

using namespace RecordLayout;
using ZK::bplist::Type;
using Kind = PlistBuilder::Kind;

// As many as the general codec's reader takes, keys and values counted apart; more is a record made
// to fill memory, for containers may share their members.
constexpr std::uint64_t kMaxMembers = std::uint64_t{1} << 23;
// As deep as that reader goes. Records of devices nest four deep.
constexpr unsigned kMaxDepth = 512;
constexpr PlistBuilder::Number kBusy = std::numeric_limits<PlistBuilder::Number>::max();
constexpr std::uint32_t kNowhere = std::numeric_limits<std::uint32_t>::max();

[[noreturn]] void fail(const char *what) { throw std::invalid_argument(what); }

// Readers differ in which of several values a key has.
template <class Value>
void requireFirst(const std::optional<Value> &value) {
    if (value) {
        fail("The record's archive has a key twice");
    }
}

void require(ZK::bplist::Status status) {
    if (!status) {
        fail(ZK::bplist::Reason(status.fault));
    }
}

constexpr std::uint8_t keyOf(RecordField field) { return static_cast<std::uint8_t>(field); }
constexpr RecordField kObjectFields[] = {RecordField::RelativePath, RecordField::Target,
                                         RecordField::Digest, RecordField::EncryptionKey,
                                         RecordField::ExtendedAttributes};

} // namespace

void DeviceRecordEncoder::Revision::Run(std::span<const std::uint8_t> old,
                                        const DeviceRecord &record, RecordFields changed,
                                        std::vector<std::uint8_t> &archive) {
    changed_ = changed;
    Open(old);
    Complete(record);
    ChooseEntries();
    PlaceEntries(record);
    ArrangePairs(record);
    WriteArchive(record);
    builder_.Finish(archive);
}

// ---- Reading the old archive

DeviceRecordEncoder::Revision::Object
DeviceRecordEncoder::Revision::ObjectAt(ObjectNumber number) const {
    Object object;
    require(document_.ObjectAt(number, object));
    return object;
}

DeviceRecordEncoder::Revision::ObjectNumber
DeviceRecordEncoder::Revision::MemberOf(const Object &container, std::uint64_t position) const {
    std::uint64_t number = 0;
    require(document_.Member(container, position, number));
    return number;
}

DeviceRecordEncoder::Revision::Object
DeviceRecordEncoder::Revision::DictionaryAt(ObjectNumber number) const {
    const Object object = ObjectAt(number);
    if (object.type != Type::Dictionary) {
        fail("The record's archive has another object in the place of a dictionary");
    }
    return object;
}

// A UID value, or the dictionary {"CF$UID": number} that stands for one in other formats.
std::optional<DeviceRecordEncoder::Revision::Entry>
DeviceRecordEncoder::Revision::ReferenceIn(const Object &object) const {
    Entry entry = 0;
    if (object.type == Type::Uid) {
        require(object.Uid(entry));
        return entry;
    }
    if (object.type != Type::Dictionary || object.count == 0 ||
        !ObjectAt(MemberOf(object, 0)).TextEquals("CF$UID")) {
        return std::nullopt;
    }
    if (object.count > 1) {
        fail("The record's archive has a reference that is more than one");
    }
    const Object number = ObjectAt(MemberOf(object, 1));
    if (number.type != Type::Integer || !number.Integer().FitsUInt64() ||
        number.Integer().low > std::numeric_limits<std::int32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<Entry>(number.Integer().low);
}

void DeviceRecordEncoder::Revision::Open(std::span<const std::uint8_t> old) {
    bytes_ = old;
    membersLeft_ = kMaxMembers;
    require(document_.Open(old));
    if (document_.ObjectCount() > kMaxMembers) {
        fail("The record's archive has too many objects");
    }
    ReadRoot();
    ReadRecord();
}

void DeviceRecordEncoder::Revision::ReadRoot() {
    const Object root = DictionaryAt(document_.RootIndex());
    std::optional<ObjectNumber> table;
    std::optional<ObjectNumber> top;
    further_.clear();
    Spend(root.count);
    for (std::uint64_t i = 0; i < root.count; ++i) {
        const Pair pair{MemberOf(root, i), MemberOf(root, root.count + i), kUnknownKey};
        const Object key = ObjectAt(pair.key);
        if (key.TextEquals("$objects")) {
            requireFirst(table);
            table = pair.value;
        } else if (key.TextEquals("$top")) {
            requireFirst(top);
            top = pair.value;
        } else if (!key.TextEquals("$version") && !key.TextEquals("$archiver")) {
            further_.push_back(pair);
        }
    }
    if (!table || !top) {
        fail("The record's archive lacks its table of objects or its root");
    }
    ReadTable(ObjectAt(*table));
    top_ = *top;
    ReadTop(DictionaryAt(top_));
}

void DeviceRecordEncoder::Revision::ReadTable(const Object &table) {
    if (table.type != Type::Array || table.count == 0) {
        fail("The record's archive lacks its table of objects");
    }
    Spend(table.count);
    table_.clear();
    for (std::uint64_t i = 0; i < table.count; ++i) {
        table_.push_back(MemberOf(table, i));
    }
}

void DeviceRecordEncoder::Revision::ReadTop(const Object &top) {
    std::optional<Entry> entry;
    Spend(top.count);
    for (std::uint64_t i = 0; i < top.count; ++i) {
        if (ObjectAt(MemberOf(top, i)).TextEquals("root")) {
            requireFirst(entry);
            entry = ReferenceIn(ObjectAt(MemberOf(top, top.count + i)));
        }
    }
    if (!entry || *entry == kNullEntry || *entry >= table_.size()) {
        fail("The record's archive has no root");
    }
    recordEntry_ = *entry;
}

void DeviceRecordEncoder::Revision::ReadRecord() {
    const Object record = DictionaryAt(table_[recordEntry_]);
    Spend(record.count);
    pairs_.clear();
    for (std::uint64_t i = 0; i < record.count; ++i) {
        Pair pair{MemberOf(record, i), MemberOf(record, record.count + i), kUnknownKey};
        const Object key = ObjectAt(pair.key);
        for (std::size_t known = 0; known < kKeyCount; ++known) {
            if (key.TextEquals(kKeyNames[known])) {
                pair.known = static_cast<Key>(known);
            }
        }
        const bool isRepeated =
            pair.known != kUnknownKey && std::ranges::any_of(pairs_, [&](const Pair &other) {
                return other.known == pair.known;
            });
        if (isRepeated) {
            fail("The record has a key twice");
        }
        pairs_.push_back(pair);
    }
}

const DeviceRecordEncoder::Revision::Pair *
DeviceRecordEncoder::Revision::PairOf(RecordField field) const {
    const auto found = std::ranges::find(pairs_, keyOf(field), &Pair::known);
    return found == pairs_.end() ? nullptr : &*found;
}

// ---- What is to be written

// Adds to the changes what makes a device's record of an old one of another writer.
void DeviceRecordEncoder::Revision::Complete(const DeviceRecord &record) {
    for (std::size_t number = 0; number < kRecordNumbers; ++number) {
        if (PairOf(static_cast<RecordField>(number)) == nullptr) {
            changed_.Add(static_cast<RecordField>(number));
        }
    }
    if (PairOf(RecordField::RelativePath) == nullptr) {
        changed_.Add(RecordField::RelativePath);
    }
    if (record.EncryptionKey != nullptr && PairOf(RecordField::EncryptionKey) != nullptr &&
        !HasWrappedKey()) {
        changed_.Add(RecordField::EncryptionKey);
    }
}

bool DeviceRecordEncoder::Revision::HasWrappedKey() const {
    const auto entry = ReferenceIn(ObjectAt(PairOf(RecordField::EncryptionKey)->value));
    if (!entry || *entry >= table_.size()) {
        return false;
    }
    const Object wrapper = ObjectAt(table_[*entry]);
    Object data;
    bool found = false;
    if (wrapper.type == Type::Dictionary) {
        require(document_.Find(wrapper, "NS.data", found, data));
    }
    return found;
}

bool DeviceRecordEncoder::Revision::HasValue(const DeviceRecord &record, RecordField field) {
    switch (field) {
    case RecordField::Target:
        return record.Target != nullptr;
    case RecordField::Digest:
        return record.Digest != nullptr;
    case RecordField::EncryptionKey:
        return record.EncryptionKey != nullptr;
    case RecordField::ExtendedAttributes:
        return record.ExtendedAttributes != nullptr;
    default:
        return true;
    }
}

bool DeviceRecordEncoder::Revision::IsReplaced(Key key) const {
    return key < kRecordFields && changed_.Has(static_cast<RecordField>(key));
}

// ---- The table of objects

void DeviceRecordEncoder::Revision::Spend(std::uint64_t members) {
    if (members > membersLeft_) {
        fail("The record's archive has too many members");
    }
    membersLeft_ -= members;
}

// Notes the entries that an object refers to.
void DeviceRecordEncoder::Revision::Walk(ObjectNumber number, unsigned depth) {
    if (walked_[number]) {
        return;
    }
    walked_[number] = true;
    const Object object = ObjectAt(number);
    if (const auto entry = ReferenceIn(object)) {
        waiting_.push_back(*entry);
        return;
    }
    if (object.type < Type::Array) {
        return;
    }
    if (depth == 0) {
        fail("The record's archive nests too deeply");
    }
    const std::uint64_t members = object.count * (object.type == Type::Dictionary ? 2 : 1);
    Spend(members);
    for (std::uint64_t i = 0; i < members; ++i) {
        Walk(MemberOf(object, i), depth - 1);
    }
}

// Adds the entries to which those that wait lead.
void DeviceRecordEncoder::Revision::Reach(std::vector<bool> &reached) {
    while (!waiting_.empty()) {
        const Entry entry = waiting_.back();
        waiting_.pop_back();
        if (entry < table_.size() && !reached[entry]) {
            reached[entry] = true;
            Walk(table_[entry], kMaxDepth);
        }
    }
}

void DeviceRecordEncoder::Revision::ChooseEntries() {
    kept_.assign(table_.size(), true);
    const bool losesObjects = std::ranges::any_of(pairs_, [&](const Pair &pair) {
        return pair.known >= kRecordNumbers && IsReplaced(pair.known);
    });
    if (!losesObjects) {
        return;
    }
    reachedBefore_.assign(table_.size(), false);
    walked_.assign(document_.ObjectCount(), false);
    waiting_.assign(1, recordEntry_);
    Reach(reachedBefore_);

    membersLeft_ = kMaxMembers;
    kept_.assign(table_.size(), false);
    kept_[kNullEntry] = kept_[recordEntry_] = true;
    walked_.assign(document_.ObjectCount(), false);
    for (const Pair &pair : pairs_) {
        if (!IsReplaced(pair.known)) {
            Walk(pair.value, kMaxDepth);
        }
    }
    Walk(top_, kMaxDepth);
    for (const Pair &pair : further_) {
        Walk(pair.value, kMaxDepth);
    }
    for (Entry entry = 0; entry < table_.size(); ++entry) {
        if (!reachedBefore_[entry]) {
            waiting_.push_back(entry);
        }
    }
    Reach(kept_);
}

void DeviceRecordEncoder::Revision::PlaceNew(RecordField field) {
    fieldEntries_[keyOf(field)] = static_cast<Entry>(slots_.size());
    slots_.push_back({kNowhere, keyOf(field), false});
    if (field == RecordField::EncryptionKey) {
        slots_.push_back({kNowhere, keyOf(field), true});
    }
}

// Puts the new object of a field where its old one was.
bool DeviceRecordEncoder::Revision::PlaceAtOld(Entry old, const DeviceRecord &record) {
    for (const RecordField field : kObjectFields) {
        const Pair *const pair = changed_.Has(field) ? PairOf(field) : nullptr;
        if (pair != nullptr && HasValue(record, field) && fieldEntries_[keyOf(field)] == kNowhere &&
            ReferenceIn(ObjectAt(pair->value)) == old) {
            PlaceNew(field);
            return true;
        }
    }
    return false;
}

// Old entries keep their order. Objects of fields that are new stand before the record's class,
// which devices write last.
void DeviceRecordEncoder::Revision::PlaceEntries(const DeviceRecord &record) {
    slots_.clear();
    newEntries_.assign(table_.size(), kNullEntry);
    fieldEntries_.assign(kKeyCount, kNowhere);
    const auto recordClass = std::ranges::find(pairs_, kClassKey, &Pair::known);
    const std::optional<Entry> classEntry =
        recordClass == pairs_.end() ? std::nullopt : ReferenceIn(ObjectAt(recordClass->value));
    const auto placeRest = [&] {
        for (const RecordField field : kObjectFields) {
            if (changed_.Has(field) && HasValue(record, field) &&
                fieldEntries_[keyOf(field)] == kNowhere) {
                PlaceNew(field);
            }
        }
    };
    for (Entry entry = 0; entry < table_.size(); ++entry) {
        if (!kept_[entry]) {
            PlaceAtOld(entry, record);
            continue;
        }
        if (entry == classEntry && entry + 1 == table_.size() && entry != recordEntry_) {
            placeRest();
        }
        newEntries_[entry] = static_cast<Entry>(slots_.size());
        slots_.push_back({entry, kUnknownKey, false});
    }
    placeRest();
}

// ---- Writing the new archive

// Old pairs keep their order, unless the record gets other keys than it had: then, if it has none
// but those that devices write, theirs.
void DeviceRecordEncoder::Revision::ArrangePairs(const DeviceRecord &record) {
    newPairs_.clear();
    RecordFields present;
    bool isUsual = true;
    for (const Pair &pair : pairs_) {
        if (!IsReplaced(pair.known) || HasValue(record, static_cast<RecordField>(pair.known))) {
            newPairs_.push_back(pair);
        }
        isUsual = isUsual && pair.known != kUnknownKey;
    }
    bool isSame = newPairs_.size() == pairs_.size();
    for (std::size_t key = 0; key < kRecordFields; ++key) {
        const auto field = static_cast<RecordField>(key);
        if (changed_.Has(field) && HasValue(record, field) && PairOf(field) == nullptr) {
            newPairs_.push_back({0, 0, static_cast<Key>(key)});
            isSame = false;
        }
    }
    if (isSame || !isUsual) {
        return;
    }
    for (const Pair &pair : newPairs_) {
        if (pair.known < kRecordFields) {
            present.Add(static_cast<RecordField>(pair.known));
        }
    }
    const KeyOrder order(present);
    const auto rank = [&](const Pair &pair) {
        return std::ranges::find(order.Keys(), pair.known) - order.Keys().begin();
    };
    std::ranges::sort(newPairs_, {}, rank);
}

void DeviceRecordEncoder::Revision::WriteArchive(const DeviceRecord &record) {
    constexpr std::size_t kAlwaysThere = 4;
    copies_.assign(document_.ObjectCount(), 0);
    membersLeft_ = kMaxMembers;
    builder_.Clear();
    const std::size_t count = kAlwaysThere + further_.size();
    const auto root = builder_.Container(Kind::Dictionary, count);
    builder_.Set(root, 0, builder_.Name("$version"));
    builder_.Set(root, 1, builder_.Name("$archiver"));
    builder_.Set(root, 2, builder_.Name("$top"));
    builder_.Set(root, 3, builder_.Name("$objects"));
    for (std::size_t i = 0; i < further_.size(); ++i) {
        builder_.Set(root, kAlwaysThere + i, Copy(further_[i].key, kMaxDepth));
    }
    builder_.Set(root, count, builder_.Integer(kArchiveVersion));
    builder_.Set(root, count + 1, builder_.Name(kArchiver));
    builder_.Set(root, count + 2, Copy(top_, kMaxDepth));
    const auto table = builder_.Container(Kind::Array, slots_.size());
    builder_.Set(root, count + 3, table);
    WriteTable(record, table);
    for (std::size_t i = 0; i < further_.size(); ++i) {
        builder_.Set(root, count + kAlwaysThere + i, Copy(further_[i].value, kMaxDepth));
    }
}

void DeviceRecordEncoder::Revision::WriteTable(const DeviceRecord &record,
                                               PlistBuilder::Number table) {
    for (std::size_t place = 0; place < slots_.size(); ++place) {
        const Slot &slot = slots_[place];
        if (slot.old == recordEntry_) {
            WriteRecord(record, table, place);
        } else if (slot.old != kNowhere) {
            builder_.Set(table, place, Copy(table_[slot.old], kMaxDepth));
        } else {
            builder_.Set(table, place, WriteNew(record, slot, static_cast<Entry>(place)));
        }
    }
}

void DeviceRecordEncoder::Revision::WriteRecord(const DeviceRecord &record,
                                                PlistBuilder::Number table, std::size_t place) {
    const std::size_t count = newPairs_.size();
    const auto pairs = builder_.Container(Kind::Dictionary, count);
    builder_.Set(table, place, pairs);
    for (std::size_t i = 0; i < count; ++i) {
        const Pair &pair = newPairs_[i];
        builder_.Set(pairs, i,
                     pair.known == kUnknownKey ? Copy(pair.key, kMaxDepth)
                                               : builder_.Name(kKeyNames[pair.known]));
    }
    for (std::size_t i = 0; i < count; ++i) {
        builder_.Set(pairs, count + i, WriteField(record, newPairs_[i]));
    }
}

PlistBuilder::Number DeviceRecordEncoder::Revision::WriteField(const DeviceRecord &record,
                                                               const Pair &pair) {
    if (!IsReplaced(pair.known)) {
        return Copy(pair.value, kMaxDepth);
    }
    return pair.known < kRecordNumbers ? AddNumber(builder_, record, pair.known)
                                       : builder_.UID(fieldEntries_[pair.known]);
}

PlistBuilder::Number DeviceRecordEncoder::Revision::WriteNew(const DeviceRecord &record,
                                                             const Slot &slot, Entry place) {
    if (slot.isKeyClass) {
        return AddClass(builder_, kDataClass);
    }
    switch (static_cast<RecordField>(slot.field)) {
    case RecordField::RelativePath:
        return builder_.Text(record.RelativePath);
    case RecordField::Target:
        return builder_.Text(record.Target);
    case RecordField::Digest:
        return builder_.Data(BytesOf(record.Digest));
    case RecordField::EncryptionKey:
        return AddWrappedData(builder_, record.EncryptionKey, place + 1);
    default:
        return builder_.Data(BytesOf(record.ExtendedAttributes));
    }
}

// Each object of the old document once, with the places that entries have now.
PlistBuilder::Number DeviceRecordEncoder::Revision::Copy(ObjectNumber number, unsigned depth) {
    if (copies_[number] == kBusy) {
        fail("The record's archive has a container that holds itself");
    }
    if (copies_[number] != 0) {
        return copies_[number] - 1;
    }
    const Object object = ObjectAt(number);
    PlistBuilder::Number copy = 0;
    if (const auto entry = ReferenceIn(object)) {
        copy = builder_.UID(*entry < newEntries_.size() ? newEntries_[*entry] : kNullEntry);
    } else if (object.type >= Type::Array) {
        copy = CopyContainer(number, object, depth);
    } else {
        copy = CopyLeaf(object);
    }
    copies_[number] = copy + 1;
    return copy;
}

PlistBuilder::Number DeviceRecordEncoder::Revision::CopyContainer(ObjectNumber number,
                                                                  const Object &object,
                                                                  unsigned depth) {
    if (depth == 0) {
        fail("The record's archive nests too deeply");
    }
    copies_[number] = kBusy;
    const bool hasPairs = object.type == Type::Dictionary;
    const std::uint64_t members = object.count * (hasPairs ? 2 : 1);
    Spend(members);
    const auto copy = builder_.Container(hasPairs                   ? Kind::Dictionary
                                         : object.type == Type::Set ? Kind::Set
                                                                    : Kind::Array,
                                         static_cast<std::size_t>(object.count));
    for (std::uint64_t i = 0; i < members; ++i) {
        builder_.Set(copy, static_cast<std::size_t>(i), Copy(MemberOf(object, i), depth - 1));
    }
    return copy;
}

PlistBuilder::Number DeviceRecordEncoder::Revision::CopyLeaf(const Object &leaf) {
    const auto start = static_cast<std::size_t>(leaf.offset);
    if (!leaf.payload.empty()) {
        const auto end = static_cast<std::size_t>(leaf.payload.data() - bytes_.data());
        return builder_.Leaf(bytes_.subspan(start, end + leaf.payload.size() - start));
    }
    if (leaf.type == Type::Data) {
        return builder_.Data({});
    }
    return leaf.IsString() ? builder_.Name("") : builder_.Leaf(bytes_.subspan(start, 1));
}

// ----

DeviceRecordEncoder::DeviceRecordEncoder() : revision_(std::make_unique<Revision>(builder_)) {}
DeviceRecordEncoder::~DeviceRecordEncoder() = default;

void DeviceRecordEncoder::Update(std::span<const std::uint8_t> old, const DeviceRecord &record,
                                 RecordFields changed, std::vector<std::uint8_t> &archive) {
    revision_->Run(old, record, changed, archive);
}

} // namespace Kelvane
