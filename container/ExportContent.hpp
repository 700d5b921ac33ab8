// Content on its way into a backup that is written.
#pragma once

#include "KVFile.h"
#include "support/cf/Pointer.hpp"
#include "support/zk/File.hpp"
#include "support/zk/UniqueDescriptor.hpp"

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <functional>
#include <span>

namespace Kelvane {

// Receives a piece of content, good until it returns.
using ContentConsumer = std::function<void(std::span<const std::uint8_t> piece)>;

// The content of one file. Read once.
class ExportContent {
  public:
    ExportContent() = default;
    ExportContent(const ExportContent &) = delete;
    ExportContent &operator=(const ExportContent &) = delete;
    virtual ~ExportContent() = default;

    // What the content is expected to have, in bytes.
    virtual std::uint64_t Size() const = 0;
    // When it was last changed; null when that is not known.
    virtual CF::Pointer<CFDateRef> ModifiedDate() const = 0;
    // Hands the content over, piece after piece. Throws CF::Error, and what the consumer throws.
    virtual void Read(const ContentConsumer &consumer) const = 0;
    // An open file that holds the content as it is, at its beginning; -1 when there is none.
    // Borrowed.
    virtual int Descriptor() const noexcept { return -1; }
};

// What a file reference delivers. Borrows it.
class FileContent : public ExportContent {
  public:
    explicit FileContent(const KVFileClass *file) : file_(file) {}

    std::uint64_t Size() const override;
    CF::Pointer<CFDateRef> ModifiedDate() const override;
    void Read(const ContentConsumer &consumer) const override;

  private:
    const KVFileClass *file_;
};

// A file of the source, carried over as it lies there.
class StoredContent : public ExportContent {
  public:
    // The file was just opened, so that it is read from its beginning. Throws code 3 "The stored
    // file could not be read - %s".
    explicit StoredContent(ZK::file::unique_descriptor file);
    explicit StoredContent(const ZK::file::readable_file &file);

    std::uint64_t Size() const override { return size_; }
    CF::Pointer<CFDateRef> ModifiedDate() const override;
    void Read(const ContentConsumer &consumer) const override;
    int Descriptor() const noexcept override { return file_.get(); }

  private:
    ZK::file::unique_descriptor file_;
    std::uint64_t size_ = 0;
    double modified_ = 0; // Unix seconds
};

// A file may change after it was looked at; what the manifest says of it is then not true of
// what was written. Throws code 3 "The file changed while it was written (%llu of %llu bytes)".
void RequireWhole(const ExportContent &content, std::uint64_t written);

} // namespace Kelvane
