// Malformed keybags: each has its own error, and none does worse than fail.
#include "KeyBagFixture.hpp"

#include <gmock/gmock.h>

namespace {

using namespace keybag_fixture;
using MB::KeyBag;

const OracleKeyBag &sample() {
    static const OracleKeyBag keyBag({"--classes", "4"});
    return keyBag;
}
Records sampleRecords() { return recordsOf(sample().blob()); }

void expectInvalid(const Bytes &blob, const std::string &reason) {
    expectLoneError(openingError(blob), kKVErrorInvalidKeyBag, reason);
}

// ---- The header -----------------------------------------------------------------

TEST(KeyBagFormat, RefusesNull) {
    expectLoneError(errorOf([] { KeyBag(CF::Data(), kPassword); }), kKVErrorInvalidKeyBag,
                    "Incomplete header");
}

TEST(KeyBagFormat, RefusesUpToOneRecord) {
    expectInvalid({}, "Incomplete header");
    expectInvalid(Bytes(7), "Incomplete header");
    expectInvalid(blobOf({{"VERS", bigEndian(5)}}), "Incomplete header");
}

TEST(KeyBagFormat, RefusesOtherVersions) {
    for (const std::uint32_t version : {0U, 1U, 2U, 4U, 6U, 0xFFFFFFFFU}) {
        Records records = sampleRecords();
        records[0].second = bigEndian(version);
        expectInvalid(blobOf(records), "Unknown version '" + std::to_string(version) + "'");
    }
}

TEST(KeyBagFormat, RefusesAVersionOfTheWrongSize) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{5}}) {
        Records records = sampleRecords();
        records[0].second = Bytes(size, 5);
        expectInvalid(blobOf(records), "Invalid VERS field");
    }
}

TEST(KeyBagFormat, RefusesToStartWithoutAVersion) {
    Records records = sampleRecords();
    std::swap(records[0], records[1]);
    expectInvalid(blobOf(records), "Missing VERS field");
}

TEST(KeyBagFormat, RefusesOtherTypes) {
    for (const std::uint32_t type : {4U, 5U, 0x80000001U, 0xFFFFFFFFU}) {
        Records records = sampleRecords();
        records[1].second = bigEndian(type);
        expectInvalid(blobOf(records), "Unknown type '" + std::to_string(type) + "'");
    }
}

TEST(KeyBagFormat, RefusesATypeOfTheWrongSize) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{5}}) {
        Records records = sampleRecords();
        records[1].second = Bytes(size, 0);
        expectInvalid(blobOf(records), "Invalid TYPE field");
    }
}

TEST(KeyBagFormat, RefusesAnotherRecordInThePlaceOfTheType) {
    Records records = sampleRecords();
    records.erase(records.begin() + 1);
    expectInvalid(blobOf(records), "Missing TYPE field");
}

TEST(KeyBagFormat, RefusesToEndAfterTheType) {
    Records records = sampleRecords();
    records.resize(2);
    expectInvalid(blobOf(records), "Expected one ManifestKey block");
}

TEST(KeyBagFormat, RefusesBlocksThatAUUIDDoesNotOpen) {
    Records records = sampleRecords();
    records.erase(records.begin() + 2);
    expectInvalid(blobOf(records), "Missing UUID field");
}

TEST(KeyBagFormat, RefusesAUUIDOfTheWrongSize) {
    for (const std::size_t position : {std::size_t{2}, kHeaderRecords}) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{15}, std::size_t{17}}) {
            Records records = sampleRecords();
            records[position].second.resize(size);
            expectInvalid(blobOf(records), "Invalid UUID field");
        }
    }
}

// ---- Fields of blocks -----------------------------------------------------------

struct Field {
    const char *tag;
    bool inClassBlock;
    std::size_t size;
    Records::iterator in(Records &records) const {
        return find(records, tag, inClassBlock ? kHeaderRecords : 2);
    }
};
class KeyBagField : public testing::TestWithParam<Field> {};
INSTANTIATE_TEST_SUITE_P(
    Every, KeyBagField,
    testing::Values(Field{"HMCK", false, 40}, Field{"WRAP", false, 4}, Field{"SALT", false, 20},
                    Field{"ITER", false, 4}, Field{"DPWT", false, 4}, Field{"DPIC", false, 4},
                    Field{"DPSL", false, 20}, Field{"CLAS", true, 4}, Field{"WRAP", true, 4},
                    Field{"KTYP", true, 4}, Field{"WPKY", true, 40}),
    [](const auto &test) {
        return std::string(test.param.inClassBlock ? "Class" : "Header") + test.param.tag;
    });

TEST_P(KeyBagField, IsMandatory) {
    for (const std::uint32_t version : {3U, 5U}) {
        Records records = sampleRecords();
        records[0].second = bigEndian(version);
        records.erase(GetParam().in(records));
        expectInvalid(blobOf(records), "Missing " + std::string(GetParam().tag) + " field");
    }
}

TEST_P(KeyBagField, HasOneSize) {
    const std::size_t right = GetParam().size;
    for (const std::size_t size : {std::size_t{0}, right - 1, right + 1, right + 256}) {
        Records records = sampleRecords();
        GetParam().in(records)->second.resize(size);
        expectInvalid(blobOf(records), "Invalid " + std::string(GetParam().tag) + " field");
    }
}

TEST_P(KeyBagField, CountsInItsOwnBlockOnly) {
    Records records = sampleRecords();
    const auto field = GetParam().in(records);
    const auto moved = *field;
    records.erase(field);
    // Into the other block, where it may repeat one of that block's own.
    records.insert(GetParam().inClassBlock ? records.begin() + 3 : records.end(), moved);
    expectInvalid(blobOf(records), "Missing " + std::string(GetParam().tag) + " field");
}

// ---- Hostile blobs --------------------------------------------------------------

// The field whose absence is noticed first when only so many records are there.
std::string reasonForRecordCount(const Records &records, std::size_t count) {
    if (count < 2) {
        return "Incomplete header";
    }
    return count == 2 ? "Expected one ManifestKey block"
                      : "Missing " + records[count].first + " field";
}

TEST(KeyBagFormat, FailsCleanlyAtEveryLength) {
    const Records records = sampleRecords();
    const Bytes &blob = sample().blob();
    std::size_t count = 0;
    std::size_t end = 0; // of the last complete record
    for (std::size_t length = 0; length < blob.size(); ++length) {
        SCOPED_TRACE(length);
        if (length == end + 8 + records[count].second.size()) {
            end = length;
            ++count;
        }
        const Bytes start(blob.begin(), blob.begin() + static_cast<std::ptrdiff_t>(length));
        if (length >= end + 8) {
            expectInvalid(start, "Incomplete header");
        } else if (count == kHeaderRecords) {
            EXPECT_TRUE(opened(start).GetClassKeys().empty());
        } else {
            expectInvalid(start, reasonForRecordCount(records, count));
        }
    }
}

TEST(KeyBagFormat, RefusesLengthsThatDoNotFitTheBlob) {
    for (const std::uint32_t length : {41U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFF8U, 0xFFFFFFFFU}) {
        Bytes blob = sample().blob(); // ends with a WPKY record
        const Bytes stated = bigEndian(length);
        std::copy(stated.begin(), stated.end(), blob.end() - 44);
        expectInvalid(blob, "Incomplete header");
    }
}

// All but the low byte of the iteration counts, which would make the test run for hours.
bool wouldTakeTooLong(const Bytes &blob, std::size_t position) {
    for (const std::string tag : {"ITER", "DPIC"}) {
        const auto found = std::search(blob.begin(), blob.end(), tag.begin(), tag.end());
        const auto value = static_cast<std::size_t>(found - blob.begin()) + 8;
        if (position >= value && position < value + 3) {
            return true;
        }
    }
    return false;
}

// Either it opens, for parts that are only kept, or it fails with an error of its own.
TEST(KeyBagFormat, SurvivesEveryFlippedBit) {
    const Bytes &blob = sample().blob();
    for (std::size_t bit = 0; bit < blob.size() * 8; ++bit) {
        if (wouldTakeTooLong(blob, bit / 8)) {
            continue;
        }
        SCOPED_TRACE(bit);
        Bytes flipped = blob;
        flipped[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
        try {
            opened(flipped);
        } catch (const CF::Error &error) {
            EXPECT_TRUE(CFEqual(error.GetDomain(), kKVErrorDomain));
            EXPECT_THAT(error.GetCode(),
                        testing::AnyOf(kKVErrorInvalidKeyBag, kKVErrorUnlockFailed));
        }
    }
}

TEST(KeyBagFormat, RefusesMoreRecordsThanTheLimit) {
    Records records = sampleRecords();
    while (records.size() < KeyBag::kMaxRecords) {
        records.insert(records.begin() + kHeaderRecords, {"XTRA", {}});
    }
    EXPECT_NE(opened(blobOf(records)).FindClassKey(4), nullptr);
    records.emplace_back("XTRA", Bytes());
    expectInvalid(blobOf(records), "Too many records (limit 4096)");
}

TEST(KeyBagFormat, TakesThousandsOfClassBlocks) {
    Records records = sampleRecords();
    const Records block(records.begin() + kHeaderRecords, records.end());
    for (std::uint32_t number = 100; records.size() + block.size() <= KeyBag::kMaxRecords;
         ++number) {
        records.insert(records.end(), block.begin(), block.end());
        find(records, "CLAS", records.size() - block.size())->second = bigEndian(number);
    }
    EXPECT_EQ(opened(blobOf(records)).GetClassKeys().size(),
              (KeyBag::kMaxRecords - kHeaderRecords) / block.size());
}

// ---- Iteration counts -----------------------------------------------------------

class KeyBagIterations : public testing::TestWithParam<std::pair<std::uint32_t, std::uint32_t>> {};

TEST_P(KeyBagIterations, AreBounded) {
    const auto [dpic, iter] = GetParam();
    Records records = sampleRecords();
    find(records, "DPIC")->second = bigEndian(dpic);
    find(records, "ITER")->second = bigEndian(iter);
    expectInvalid(blobOf(records), "Too many iterations (DPIC " + std::to_string(dpic) + ", ITER " +
                                       std::to_string(iter) + ")");
}
INSTANTIATE_TEST_SUITE_P(Hostile, KeyBagIterations,
                         testing::Values(std::pair{0xFFFFFFFFU, 0xFFFFFFFFU},
                                         std::pair{0xFFFFFFFFU, 1U}, std::pair{1U, 0xFFFFFFFFU},
                                         std::pair{1'000'000'001U, 0U},
                                         std::pair{500'000'000U, 500'000'001U}));

// ---- Steps ----------------------------------------------------------------------

TEST(KeyBagSteps, SplitsRecordsIntoBlocksAtEachUUID) {
    const KeyBag keyBag = opened(sample().blob());
    const Records records = {{"CLAS", bigEndian(1)},
                             {"CLAS", bigEndian(2)},
                             {"UUID", Bytes(16, 7)},
                             {"KTYP", bigEndian(3)},
                             {"UUID", Bytes(16, 8)}};
    std::vector<KeyBag::Block> blocks;
    keyBag.parseNextBlock(KeyBag::UUIDBytes{5}, records.begin(), records.end(), blocks);
    ASSERT_EQ(blocks.size(), 3U);
    EXPECT_EQ(blocks[0].size(), 2U);
    EXPECT_EQ(KeyBag::getSequence<16>(blocks[0], "UUID"), KeyBag::UUIDBytes{5});
    EXPECT_EQ(KeyBag::getScalar<unsigned int>(blocks[0], "CLAS"), 1U);
    EXPECT_EQ(KeyBag::getScalar<unsigned int>(blocks[1], "KTYP"), 3U);
    EXPECT_EQ(blocks[2].size(), 1U);
    EXPECT_EQ(blocks[2].at("UUID"), Bytes(16, 8));
}

TEST(KeyBagSteps, FindsUUIDsByPosition) {
    const KeyBag keyBag = opened(sample().blob());
    const auto records = keyBag.GetRecords().begin();
    EXPECT_EQ(keyBag.getUUID(records + 2), keyBag.GetManifestInfo().uuid);
    EXPECT_EQ(keyBag.getUUID(records + kHeaderRecords), keyBag.FindClassKey(4)->uuid);
    for (const auto position : {records + 3, keyBag.GetRecords().end()}) {
        expectLoneError(errorOf([&] { keyBag.getUUID(position); }), kKVErrorInvalidKeyBag,
                        "Missing UUID field");
    }
}

TEST(KeyBagSteps, ReadsFieldsOfEachSize) {
    const KeyBag::Block block = {{"AAAA", Bytes(16, 1)},
                                 {"BBBB", Bytes(20, 2)},
                                 {"CCCC", Bytes(40, 3)},
                                 {"DDDD", {0x01, 0x02, 0x83, 0x04}}};
    EXPECT_EQ(KeyBag::getSequence<16>(block, "AAAA").back(), 1);
    EXPECT_EQ(KeyBag::getSequence<20>(block, "BBBB").back(), 2);
    EXPECT_EQ(KeyBag::getSequence<40>(block, "CCCC").back(), 3);
    EXPECT_EQ(KeyBag::getScalar<unsigned int>(block, "DDDD"), 0x01028304U);
}

TEST(KeyBagSteps, NameTheFieldThatIsMissingOrInvalid) {
    const KeyBag::Block block = {{"AAAA", Bytes(16, 1)}};
    expectLoneError(errorOf([&] { KeyBag::getSequence<40>(block, "AAAA"); }), kKVErrorInvalidKeyBag,
                    "Invalid AAAA field");
    expectLoneError(errorOf([&] { KeyBag::getSequence<16>(block, "BBBB"); }), kKVErrorInvalidKeyBag,
                    "Missing BBBB field");
    expectLoneError(errorOf([&] { KeyBag::getScalar<unsigned int>(block, "AAAA"); }),
                    kKVErrorInvalidKeyBag, "Invalid AAAA field");
    expectLoneError(errorOf([&] { KeyBag::getScalar<unsigned int>(block, "BBBB"); }),
                    kKVErrorInvalidKeyBag, "Missing BBBB field");
}

} // namespace
