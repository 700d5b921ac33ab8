#include "tests/filestore/StoreFixture.hpp"

#include <functional>
#include <limits>
#include <thread>

#include <sys/stat.h>

namespace {

using namespace testing_support;
namespace FileManager = Kelvane::FileManager;

class Reading : public Store {
  protected:
    ~Reading() override { FileManager::SetMaxMemorySize(FileManager::kDefaultMaxMemorySize); }

    static std::vector<std::size_t> pieceSizes(const OwnedFile &file, unsigned long chunkSize) {
        std::vector<std::size_t> sizes;
        KVFileGetData(file.get(), chunkSize, [&](const Bytes &bytes) {
            sizes.push_back(bytes.size());
            return true;
        });
        return sizes;
    }
    // A file whose stored bytes are the ciphertext of the plaintext.
    static OwnedFile decrypted(const Bytes &plain) {
        auto file = fileOf(Encrypted(plain, KeyOf(5)));
        KVFileEnableDecryption(file.get(), KeyOf(5));
        return file;
    }
};

TEST_F(Reading, TheDefaultChunkIs32KiB) { EXPECT_EQ(kKVFileDefaultDataChunkSize, 32768UL); }

TEST_F(Reading, DeliversPiecesOfTheChunkSize) {
    const auto file = fileOf(Pattern(10));
    EXPECT_EQ(pieceSizes(file, 4), (std::vector<std::size_t>{4, 4, 2}));
    EXPECT_EQ(pieceSizes(file, 5), (std::vector<std::size_t>{5, 5}));
    EXPECT_EQ(pieceSizes(file, std::numeric_limits<unsigned long>::max()),
              (std::vector<std::size_t>{10}));
}

TEST_F(Reading, ChunkSizeZeroMeansTheDefault) {
    EXPECT_EQ(pieceSizes(fileOf(Pattern(70000)), 0),
              (std::vector<std::size_t>{32768, 32768, 4464}));
}

TEST_F(Reading, AnEmptyFileGivesNoPiece) {
    EXPECT_EQ(pieceSizes(fileOf(Bytes{}), 0), std::vector<std::size_t>{});
}

TEST_F(Reading, StopsWhenTheConsumerSaysSo) {
    for (const auto &file : {fileOf(Pattern(100000)), decrypted(Pattern(100000))}) {
        int calls = 0;
        KVFileGetData(file.get(), 0, [&](const Bytes &) {
            ++calls;
            return false;
        });
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(Reading, RefusesANullFile) {
    EXPECT_TRUE(IsError(
        ErrorThrownBy([] { KVFileGetData(nullptr, 0, [](const Bytes &) { return true; }); }),
        kKVErrorInvalidArgument, ""));
    EXPECT_TRUE(
        IsError(ErrorThrownBy([] { KVFileGetDataQuickly(nullptr); }), kKVErrorInvalidArgument, ""));
}

TEST_F(Reading, RefusesAnEmptyConsumer) {
    const auto file = fileOf(Pattern(10));
    EXPECT_THROW(KVFileGetData(file.get(), 0, nullptr), std::bad_function_call);
}

TEST_F(Reading, LetsTheConsumersExceptionsPass) {
    const auto file = fileOf(Pattern(10));
    EXPECT_THROW(KVFileGetData(file.get(), 0,
                               [](const Bytes &) -> bool { throw std::out_of_range("mine"); }),
                 std::out_of_range);
}

TEST_F(Reading, ReportsAFileThatIsGone) {
    const auto file = fileOf(Pattern(10));
    boost::filesystem::remove(pathOf(file));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Contents(file); }), kKVErrorFilesystem,
                        "open: No such file or directory (" + pathOf(file) + ")"));
    EXPECT_FALSE(KVFileGetDataQuickly(file.get()));
}

TEST_F(Reading, DoesNotWaitForAFifoInTheFilesPlace) {
    const auto file = fileOf(Pattern(10));
    boost::filesystem::remove(pathOf(file));
    ASSERT_EQ(::mkfifo(pathOf(file).c_str(), 0600), 0);
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Contents(file); }), kKVErrorFilesystem,
                        "Not a regular file: Operation not supported (" + pathOf(file) + ")"));
    EXPECT_FALSE(KVFileGetDataQuickly(file.get()));
}

TEST_F(Reading, ReportsAReadThatFails) {
    // Reading this file of /proc at its start fails: address 0 is not mapped.
    const auto file = CF::Adopt(_KVFileAllocInit());
    file.get()->localPath = CFSTR("/proc/self/mem");
    file.get()->size = 10;
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { Contents(file); }), kKVErrorFilesystem,
                        "Failed to read local file (/proc/self/mem)"));
    EXPECT_TRUE(IsError(ErrorThrownBy([&] { KVFileEnableDecryption(file.get(), KeyOf(1)); }),
                        kKVErrorFilesystem, "Failed to read local file (/proc/self/mem)"));
}

TEST_F(Reading, WorksOnManyThreadsAtATime) {
    const Bytes plain = Pattern(200000);
    const auto file = decrypted(plain);
    std::vector<Bytes> results(6);
    std::vector<std::thread> threads;
    for (Bytes &result : results) {
        threads.emplace_back([&] { result = Contents(file, 1000); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results, std::vector<Bytes>(6, plain));
}

class QuickReading : public Reading {};

TEST_F(QuickReading, DeliversSmallFilesWhole) {
    for (const std::size_t size : {1U, 1000U, 32767U, 32768U}) {
        EXPECT_EQ(KVFileGetDataQuickly(fileOf(Pattern(size)).get()), Pattern(size)) << size;
    }
}

TEST_F(QuickReading, EndsAt32KiBWhateverTheLimit) {
    FileManager::SetMaxMemorySize(std::numeric_limits<unsigned long>::max());
    EXPECT_FALSE(KVFileGetDataQuickly(fileOf(Pattern(32769)).get()));
}

TEST_F(QuickReading, HonoursTheMemoryLimit) {
    const auto file = fileOf(Pattern(100));
    FileManager::SetMaxMemorySize(99);
    EXPECT_FALSE(KVFileGetDataQuickly(file.get()));
    FileManager::SetMaxMemorySize(100);
    EXPECT_TRUE(KVFileGetDataQuickly(file.get()));
}

TEST_F(QuickReading, LimitZeroLeavesOnlyEmptyFiles) {
    FileManager::SetMaxMemorySize(0);
    EXPECT_FALSE(KVFileGetDataQuickly(fileOf(Pattern(1)).get()));
    EXPECT_EQ(KVFileGetDataQuickly(fileOf(Bytes{}).get()), Bytes{});
}

TEST_F(QuickReading, AnEmptyFileIsNotEvenOpened) {
    const auto file = fileOf(Bytes{});
    boost::filesystem::remove(pathOf(file));
    EXPECT_EQ(KVFileGetDataQuickly(file.get()), Bytes{});
}

TEST_F(QuickReading, LeavesAReadErrorToTheOtherWay) {
    const auto file = CF::Adopt(_KVFileAllocInit());
    file.get()->localPath = CFSTR("/proc/self/mem");
    file.get()->size = 10;
    EXPECT_FALSE(KVFileGetDataQuickly(file.get()));
}

class CReading : public Reading {
  protected:
    static Boolean collect(const uint8_t *bytes, CFIndex length, void *context) {
        auto &all = *static_cast<Bytes *>(context);
        all.insert(all.end(), bytes, bytes + length);
        return true;
    }
};

TEST_F(CReading, DeliversTheContent) {
    const Bytes plain = Pattern(100001);
    for (const auto &file : {fileOf(plain), decrypted(plain)}) {
        Bytes all;
        EXPECT_TRUE(KVFileReadData(file.get(), 0, &collect, &all, nullptr));
        EXPECT_EQ(all, plain);
    }
}

TEST_F(CReading, AConsumerThatStopsIsNoFailure) {
    const auto file = fileOf(Pattern(100000));
    int calls = 0;
    const auto stop = [](const uint8_t *, CFIndex, void *context) -> Boolean {
        ++*static_cast<int *>(context);
        return false;
    };
    EXPECT_TRUE(KVFileReadData(file.get(), 10, stop, &calls, nullptr));
    EXPECT_EQ(calls, 1);
}

TEST_F(CReading, ReportsErrors) {
    const auto file = fileOf(Pattern(10));
    boost::filesystem::remove(pathOf(file));
    Bytes all;
    Kelvane::LocalError error;
    EXPECT_FALSE(KVFileReadData(file.get(), 0, &collect, &all, error.out()));
    EXPECT_TRUE(IsError(error.get(), kKVErrorFilesystem,
                        "open: No such file or directory (" + pathOf(file) + ")"));
    EXPECT_FALSE(KVFileReadData(file.get(), 0, &collect, &all, nullptr));
}

TEST_F(CReading, RefusesNulls) {
    const auto file = fileOf(Pattern(10));
    Bytes all;
    Kelvane::LocalError noFile;
    EXPECT_FALSE(KVFileReadData(nullptr, 0, &collect, &all, noFile.out()));
    EXPECT_TRUE(IsError(noFile.get(), kKVErrorInvalidArgument, ""));
    Kelvane::LocalError noConsumer;
    EXPECT_FALSE(KVFileReadData(file.get(), 0, nullptr, &all, noConsumer.out()));
    EXPECT_TRUE(IsError(noConsumer.get(), kKVErrorInvalidArgument, ""));
}

} // namespace
