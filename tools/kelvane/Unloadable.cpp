#include "Unloadable.hpp"

#include "KVError.h"

#include <cerrno>

namespace tool {

namespace {

bool isLink(const CF::Error &cause) {
    return cause && CFEqual(cause.GetDomain(), kCFErrorDomainPOSIX) && cause.GetCode() == ELOOP;
}

// An export asks for stored files that an entry promises; one that cannot be had is an invalid
// argument there, whose text sends the user to the developer.
CF::Error withoutAlarm(const CF::Error &error) {
    const CF::Error alarm = FindCode(error, kKVErrorInvalidArgument);
    return alarm && alarm.GetUnderlying() ? alarm.GetUnderlying() : error;
}

} // namespace

Unloadable WhyUnloadable(const CF::Error &error) {
    const CF::Error invalid = FindCode(error, kKVErrorInvalidBackup);
    // The refusal of a name has nothing underneath, but for one that a link leads to; a zip's
    // error, of a record that it lacks, has minizip's.
    if (invalid && isLink(invalid.GetUnderlying())) {
        return {"linked-content", "its stored content lies behind a symbolic link"};
    }
    if (FindCode(error, kKVErrorFileNotFound) || (invalid && invalid.GetUnderlying())) {
        return {"content-missing", "its stored content is missing"};
    }
    if (invalid) {
        return {"unsafe-name", "its file ID makes no safe file name"};
    }
    return {"content-unreadable", "its stored content cannot be read"};
}

Failure UnloadableContent(const CF::Error &error) {
    return Failure(WhyUnloadable(error).message, withoutAlarm(error));
}

} // namespace tool
