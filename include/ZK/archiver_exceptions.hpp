// What can be wrong with a keyed archive.
//
// All of these are data errors: the archive at hand cannot be read. Each carries the
// message given beside it. A throw leaves nothing behind.
#pragma once

#include "KVBase.h"

#include <cstdint>
#include <stdexcept>
#include <typeinfo>

namespace ZK::archiver_exceptions {

// The base of the family, for handlers that treat all of them alike.
class KV_VISIBLE archiver_exception : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
    ~archiver_exception() override;
};

// "Archive was not created with a keyed archiver": "$archiver" is missing or names another.
class KV_VISIBLE invalid_creator : public archiver_exception {
  public:
    invalid_creator();
    ~invalid_creator() override;
};

// "Archive has no version": "$version" is missing or no number.
class KV_VISIBLE missing_version : public archiver_exception {
  public:
    missing_version();
    ~missing_version() override;
};

// "Archive has unknown version N".
class KV_VISIBLE unknown_version : public archiver_exception {
  public:
    explicit unknown_version(std::int64_t found);
    ~unknown_version() override;
    std::int64_t version;
};

// "Archive is missing the $top key": it is missing or no dictionary.
class KV_VISIBLE missing_top : public archiver_exception {
  public:
    missing_top();
    ~missing_top() override;
};

// "Archive is missing the $objects key": it is missing or no array.
class KV_VISIBLE missing_objects : public archiver_exception {
  public:
    missing_objects();
    ~missing_objects() override;
};

// "Archive does not have a root object": "$top" holds no reference "root".
class KV_VISIBLE missing_root : public archiver_exception {
  public:
    missing_root();
    ~missing_root() override;
};

// "A cycle was detected when decoding the archive": an object holds itself.
class KV_VISIBLE decode_cycle : public archiver_exception {
  public:
    decode_cycle();
    ~decode_cycle() override;
};

// "uid N was missing or null": a reference to no object of the table.
class KV_VISIBLE missing_uid : public archiver_exception {
  public:
    explicit missing_uid(std::uint32_t missing);
    ~missing_uid() override;
    std::uint32_t uid;
};

// "Cant decode type 'T' as a value": where only a reference will do stands a value. T
// is the run-time name of the type that was to be decoded.
class KV_VISIBLE cant_decode_as_value : public archiver_exception {
  public:
    explicit cant_decode_as_value(const std::type_info &type);
    ~cant_decode_as_value() override;
};

// The archive (or the object graph to be archived) goes beyond a limit that keeps
// hostile data from exhausting the stack or the processor; the message says which.
class KV_VISIBLE limit_exceeded : public archiver_exception {
  public:
    explicit limit_exceeded(const char *message);
    ~limit_exceeded() override;
};

} // namespace ZK::archiver_exceptions
