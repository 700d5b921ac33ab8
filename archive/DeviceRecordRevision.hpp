// An old record on its way to a new one.
#pragma once

#include "archive/DeviceRecord.hpp"
#include "support/zk/BinaryPlist.hpp"

#include <optional>
#include <vector>

namespace Kelvane {

// Copies an archive object by object, with other values for some fields of its record. Keeps its
// memory from one archive to the next.
class DeviceRecordEncoder::Revision {
  public:
    explicit Revision(PlistBuilder &builder) : builder_(builder) {}

    void Run(std::span<const std::uint8_t> old, const DeviceRecord &record, RecordFields changed,
             std::vector<std::uint8_t> &archive);

  private:
    using Object = ZK::bplist::Object;
    using ObjectNumber = std::uint64_t; // in the old document
    using Entry = std::uint32_t;        // in a table of objects
    using Key = std::uint8_t;           // as RecordLayout numbers them
    static constexpr Key kUnknownKey = 0xFF;

    struct Pair {
        ObjectNumber key;
        ObjectNumber value;
        Key known; // what the key is
    };
    // A place in the new table.
    struct Slot {
        Entry old;
        Key field; // of a new object; kUnknownKey for that of the old entry
        bool isKeyClass;
    };

    // Reading the old archive.
    Object ObjectAt(ObjectNumber number) const;
    ObjectNumber MemberOf(const Object &container, std::uint64_t position) const;
    Object DictionaryAt(ObjectNumber number) const;
    std::optional<Entry> ReferenceIn(const Object &object) const;
    void Open(std::span<const std::uint8_t> old);
    void ReadRoot();
    void ReadTop(const Object &top);
    void ReadTable(const Object &table);
    void ReadRecord();
    const Pair *PairOf(RecordField field) const;

    // What is to be written.
    void Complete(const DeviceRecord &record);
    bool HasWrappedKey() const;
    static bool HasValue(const DeviceRecord &record, RecordField field);
    bool IsReplaced(Key key) const;

    // Which old entries stay: all but those that only replaced fields led to.
    void ChooseEntries();
    void Reach(std::vector<bool> &reached);
    void Walk(ObjectNumber number, unsigned depth);
    void Spend(std::uint64_t members);
    void PlaceEntries(const DeviceRecord &record);
    bool PlaceAtOld(Entry old, const DeviceRecord &record);
    void PlaceNew(RecordField field);

    // Writing the new one.
    void WriteArchive(const DeviceRecord &record);
    void WriteTable(const DeviceRecord &record, PlistBuilder::Number table);
    void ArrangePairs(const DeviceRecord &record);
    void WriteRecord(const DeviceRecord &record, PlistBuilder::Number table, std::size_t place);
    PlistBuilder::Number WriteField(const DeviceRecord &record, const Pair &pair);
    PlistBuilder::Number WriteNew(const DeviceRecord &record, const Slot &slot, Entry place);
    PlistBuilder::Number Copy(ObjectNumber number, unsigned depth);
    PlistBuilder::Number CopyContainer(ObjectNumber number, const Object &object, unsigned depth);
    PlistBuilder::Number CopyLeaf(const Object &leaf);

    PlistBuilder &builder_;
    PlistBuilder::Bytes bytes_;
    ZK::bplist::Document document_;
    RecordFields changed_;
    Entry recordEntry_ = 0;
    std::uint64_t membersLeft_ = 0;
    ObjectNumber top_ = 0;
    std::vector<Pair> further_; // of the archive, beside the four that all have
    std::vector<ObjectNumber> table_;
    std::vector<Pair> pairs_;    // of the record
    std::vector<Pair> newPairs_; // in the order in which they are written
    std::vector<Slot> slots_;
    std::vector<Entry> newEntries_; // by old entry; null for those that go
    std::vector<Entry> fieldEntries_;
    std::vector<bool> walked_; // by object
    std::vector<Entry> waiting_;
    std::vector<bool> reachedBefore_;
    std::vector<bool> kept_;
    // By object of the old document: 0, or the number of its copy and 1.
    std::vector<PlistBuilder::Number> copies_;
};

} // namespace Kelvane
