#include "manifest/DeviceMbdb.hpp"

#include "Kelvane/Error.hpp"
#include "manifest/ByteCursor.hpp"
#include "manifest/DeviceDatabase.hpp"
#include "manifest/DeviceRowRecord.hpp"
#include "manifest/ExtendedAttributes.hpp"
#include "manifest/MbdbFields.hpp"
#include "manifest/MbdbLimits.hpp"
#include "manifest/MbdbRecord.hpp"
#include "manifest/RowPlan.hpp"
#include "support/cf/CF.hpp"

#include <algorithm>
#include <array>
#include <optional>

namespace Kelvane {

namespace {

using Bytes = std::span<const std::uint8_t>;
using MbdbFields::AppendInteger;
using MbdbFields::Output;

constexpr auto kEmpty = MbdbFields::Empty::AsAbsent;
constexpr std::size_t kHeaderSize = MbdbFields::kHeader.size();
constexpr std::size_t kMagicSize = 4;
// From mode to protection class.
constexpr std::size_t kFixedSize = 39;

[[noreturn]] void ThrowOtherManifest() {
    throw Error(kKVErrorInvalidManifestDatabase, nullptr,
                "The manifest is not the one that was read");
}

// A record of the source in pieces.
struct OldRecord {
    enum { Domain, Path, Target, Digest, Key, Strings };
    Bytes all;
    std::array<Bytes, Strings> strings; // with their lengths
    Bytes properties;                   // with their number
};

// Reads one record after another. Anything that is none is another manifest than was read.
class OldRecords {
  public:
    explicit OldRecords(Bytes source) : source_(source), cursor_(source, kHeaderSize) {
        if (source.size() < kHeaderSize ||
            !std::equal(source.begin(), source.begin() + kMagicSize, MbdbFields::kHeader.begin())) {
            ThrowOtherManifest();
        }
    }
    bool AreLeft() const noexcept { return cursor_.Remaining() > 0; }

    OldRecord Next() {
        OldRecord record;
        const std::size_t start = cursor_.Position();
        for (Bytes &string : record.strings) {
            string = String();
        }
        Require(cursor_.Bytes(kFixedSize).has_value());
        const std::size_t properties = cursor_.Position();
        const auto count = cursor_.Integer<std::uint8_t>();
        Require(count.has_value());
        for (unsigned i = 0; i < 2U * *count; ++i) {
            String();
        }
        record.properties = source_.subspan(properties, cursor_.Position() - properties);
        record.all = source_.subspan(start, cursor_.Position() - start);
        return record;
    }

  private:
    static void Require(bool isThere) {
        if (!isThere) {
            ThrowOtherManifest();
        }
    }
    Bytes String() {
        const std::size_t start = cursor_.Position();
        Require(cursor_.ByteString().has_value());
        return source_.subspan(start, cursor_.Position() - start);
    }

    Bytes source_;
    ByteCursor cursor_;
};

CF::Dictionary AnyPropertiesOf(const KVManifestEntryClass &entry) {
    if (CF::Dictionary::Cast(entry.keptAttributes.get())) {
        return {}; // some are no names with data
    }
    if (entry.keptAttributes && CFDictionaryGetCount(entry.properties.get()) == 0) {
        return DecodeExtendedAttributes(entry.keptAttributes.get());
    }
    return CF::Dictionary(entry.properties.get());
}

// The properties that a record is to have; null when it has no place for them.
CF::Dictionary PropertiesOf(const KVManifestEntryClass &entry) {
    const CF::Dictionary properties = AnyPropertiesOf(entry);
    return properties.GetCount() <= kMostMbdbProperties ? properties : CF::Dictionary();
}

CFDataRef DataOf(const CF::Pointer<CFDataRef> &data) { return data ? data.get() : EmptyData(); }

// The low bits of the seconds, which are all that the format holds.
std::uint32_t TimeField(CFAbsoluteTime time) {
    return static_cast<std::uint32_t>(UnixSeconds(time));
}

void AppendFixedBlock(Output &output, const DeviceRow &row) {
    const KVManifestEntryClass &entry = row.entry;
    AppendInteger(output, entry.mode);
    AppendInteger(output, entry.inode);
    AppendInteger(output, entry.uid);
    AppendInteger(output, entry.gid);
    AppendInteger(output, TimeField(entry.lastStatusChange));
    AppendInteger(output, TimeField(entry.lastModified));
    AppendInteger(output, TimeField(entry.birth));
    AppendInteger(output, static_cast<std::uint64_t>(row.size));
    AppendInteger(output, static_cast<std::uint8_t>(CodeOfProtectionClass(row.protectionClass)));
}

// Records of changed and new entries, one behind another, before anything is written: one of them
// may have no form.
class Changes {
  public:
    Changes(KVManifestClass *manifest, const DeviceRowRules &rules)
        : manifest_(manifest), rules_(rules) {}

    void Compare(Bytes source);
    void Append(const KVManifestEntryClass &entry);
    void AppendAll();
    void RequireNoneFailed() const;
    bool AreNone() const noexcept { return edits_.empty() && fresh_.empty(); }
    void Write(Bytes source, const ByteSink &sink) const;

  private:
    // Bytes of the source that go, and those of the new ones that come in their place.
    struct Edit {
        Bytes old;
        std::size_t start;
        std::size_t end;
    };

    DeviceRow RowOf(const KVManifestEntryClass &entry) const;
    void Rewrite(const OldRecord &old, const KVManifestEntryClass &entry);
    bool AppendUpdated(const OldRecord &old, const KVManifestEntryClass &was, const DeviceRow &row);

    KVManifestClass *manifest_;
    const DeviceRowRules &rules_;
    TextCache domains_;
    Output fresh_;
    std::size_t appended_ = 0; // where new records begin
    std::vector<Edit> edits_;
    CF::Array failed_ = CF::Array::Mutable();
};

DeviceRow Changes::RowOf(const KVManifestEntryClass &entry) const {
    DeviceRow row(entry);
    if (rules_.adjust) {
        rules_.adjust(row);
    }
    return row;
}

// Walks the source beside the plan, which has its order.
void Changes::Compare(Bytes source) {
    const RowPlan plan(*manifest_, rules_);
    const std::uint32_t count = manifest_->source->EntryCount();
    auto rewriting = plan.Rewritten().begin();
    OldRecords records(source);
    std::uint32_t ordinal = 0;
    for (; records.AreLeft() && ordinal < count; ++ordinal) {
        const OldRecord old = records.Next();
        if (plan.IsRemoved(ordinal)) {
            edits_.push_back({old.all, fresh_.size(), fresh_.size()});
        } else if (rewriting != plan.Rewritten().end() && rewriting->ordinal == ordinal) {
            Rewrite(old, *rewriting->entry);
            ++rewriting;
        }
    }
    if (records.AreLeft() || ordinal != count) {
        ThrowOtherManifest();
    }
    appended_ = fresh_.size();
    std::vector<const KVManifestEntryClass *> added = plan.Added();
    std::stable_sort(added.begin(), added.end(), IsWrittenBefore);
    for (const KVManifestEntryClass *const entry : added) {
        Append(*entry);
    }
}

void Changes::Rewrite(const OldRecord &old, const KVManifestEntryClass &entry) {
    ByteCursor cursor(old.all, 0);
    const EntryPointer was = ReadMbdbRecord(kCFAllocatorDefault, cursor, domains_, nullptr);
    if (!was) {
        ThrowOtherManifest();
    }
    const std::size_t start = fresh_.size();
    if (!AppendUpdated(old, *was.get(), RowOf(entry))) {
        failed_.Append(&entry);
        fresh_.resize(start);
    } else if (std::equal(old.all.begin(), old.all.end(),
                          fresh_.begin() + static_cast<std::ptrdiff_t>(start), fresh_.end())) {
        fresh_.resize(start);
    } else {
        edits_.push_back({old.all, start, fresh_.size()});
    }
}

// Byte strings that say the same stay in the form that they have; there are two for empty ones.
bool Changes::AppendUpdated(const OldRecord &old, const KVManifestEntryClass &was,
                            const DeviceRow &row) {
    const KVManifestEntryClass &entry = row.entry;
    const auto keep = [this](Bytes bytes) {
        fresh_.insert(fresh_.end(), bytes.begin(), bytes.end());
        return true;
    };
    const auto text = [&](int index, CFStringRef before, CFStringRef now) {
        return CFEqual(before, now) ? keep(old.strings[static_cast<std::size_t>(index)])
                                    : MbdbFields::AppendText(fresh_, now, kEmpty);
    };
    const auto data = [&](int index, CFDataRef before, CFDataRef now) {
        return CFEqual(before, now) ? keep(old.strings[static_cast<std::size_t>(index)])
                                    : MbdbFields::AppendData(fresh_, now, kEmpty);
    };
    if (!text(OldRecord::Domain, was.domain.get(), entry.domain.get()) ||
        !text(OldRecord::Path, was.relativePath.get(), entry.relativePath.get()) ||
        !text(OldRecord::Target, was.target.get(), entry.target.get()) ||
        !data(OldRecord::Digest, was.dataHash.get(), DataOf(row.digest)) ||
        !data(OldRecord::Key, was.encryptionData.get(), DataOf(row.encryptionKey))) {
        return false;
    }
    AppendFixedBlock(fresh_, row);
    const CF::Dictionary properties = PropertiesOf(entry);
    if (!properties) {
        return false;
    }
    return CFEqual(was.properties.get(), properties.get())
               ? keep(old.properties)
               : MbdbFields::AppendProperties(fresh_, properties.get(), kEmpty);
}

void Changes::Append(const KVManifestEntryClass &entry) {
    const DeviceRow row = RowOf(entry);
    const CF::Dictionary properties = PropertiesOf(entry);
    const std::size_t start = fresh_.size();
    if (properties && MbdbFields::AppendText(fresh_, entry.domain.get(), kEmpty) &&
        MbdbFields::AppendText(fresh_, entry.relativePath.get(), kEmpty) &&
        MbdbFields::AppendText(fresh_, entry.target.get(), kEmpty) &&
        MbdbFields::AppendData(fresh_, DataOf(row.digest), kEmpty) &&
        MbdbFields::AppendData(fresh_, DataOf(row.encryptionKey), kEmpty)) {
        AppendFixedBlock(fresh_, row);
        if (MbdbFields::AppendProperties(fresh_, properties.get(), kEmpty)) {
            return;
        }
    }
    fresh_.resize(start);
    failed_.Append(&entry);
}

void Changes::AppendAll() {
    manifest_->entries.ForEach([&](const KVManifestEntryClass *entry) {
        if (!rules_.leavesOut || !rules_.leavesOut(*entry)) {
            Append(*entry);
        }
    });
}

void Changes::RequireNoneFailed() const {
    if (failed_.GetCount() > 0) {
        throw Error(kKVErrorUnknown, nullptr, CFSTR("Failed to serialize entries %@"),
                    failed_.get());
    }
}

void Changes::Write(Bytes source, const ByteSink &sink) const {
    const auto write = [&](Bytes bytes) {
        if (!bytes.empty()) {
            sink(bytes);
        }
    };
    const Bytes fresh(fresh_);
    const std::uint8_t *left = source.data();
    for (const Edit &edit : edits_) {
        write({left, edit.old.data()});
        write(fresh.subspan(edit.start, edit.end - edit.start));
        left = edit.old.data() + edit.old.size();
    }
    write({left, source.data() + source.size()});
    write(fresh.subspan(appended_));
}

} // namespace

ManifestUpdate WriteDeviceMbdb(KVManifestClass *manifest, std::span<const std::uint8_t> source,
                               const DeviceRowRules &rules, const ByteSink &sink) {
    const bool hasSource = HasSource(*manifest) && !source.empty();
    Changes changes(manifest, rules);
    if (hasSource) {
        changes.Compare(source);
    } else {
        changes.AppendAll();
    }
    changes.RequireNoneFailed();
    changes.Write(hasSource ? source : Bytes(MbdbFields::kHeader), sink);
    return !hasSource          ? ManifestUpdate::WrittenAnew
           : changes.AreNone() ? ManifestUpdate::Untouched
                               : ManifestUpdate::Updated;
}

} // namespace Kelvane
