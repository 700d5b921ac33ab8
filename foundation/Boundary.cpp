#include "foundation/Boundary.hpp"

#include "Kelvane/Error.hpp"
#include "foundation/TemporaryPathNotSet.hpp"
#include "support/cf/Extensions.hpp"

#include <cerrno>
#include <exception>
#include <new>

namespace Kelvane {

namespace {

CF::Error translate() {
    try {
        throw;
    } catch (const CF::Error &error) {
        return error;
    } catch (const TemporaryPathNotSet &exception) {
        return Error(kKVErrorInvalidArgument, nullptr,
                     CFSTR("%s: call KelvaneSetTemporaryPath first"), exception.what());
    } catch (const std::bad_alloc &) {
        return OutOfMemoryError();
    } catch (const std::exception &exception) {
        return Error(kKVErrorUnknown, nullptr, CF::String(exception.what()));
    } catch (...) {
        return Error(kKVErrorUnknown, nullptr, "An exception of an unknown type");
    }
}

} // namespace

// Never destroyed: a host may call while the process exits.
const CF::Error &OutOfMemoryError() {
    static const auto *const error = new CF::Error(
        Error(kKVErrorUnknown,
              CF::Error::Adopt(CFErrorCreatePOSIXError(kCFAllocatorDefault, ENOMEM, nullptr)),
              "There is not enough memory"));
    return *error;
}

CF::Error CurrentError() noexcept {
    try {
        return translate();
    } catch (...) {
        return OutOfMemoryError(); // what else can go wrong in making an error
    }
}

} // namespace Kelvane
