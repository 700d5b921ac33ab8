// Keys from passwords.
#include "MB/ManifestEncryption.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "fastpbkdf2.h"
#include "support/zk/Encryption.hpp"
#include "support/zk/Log.hpp"
#include "support/zk/Secret.hpp"

#include <algorithm>
#include <chrono>

namespace MB {
namespace {

class Stopwatch {
  public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void requireBearable(const KeyBag::ManifestInfo &info) {
    if (std::uint64_t{info.dpic} + info.iterations > ManifestEncryption::kMaxIterations) {
        throw Kelvane::Error(kKVErrorInvalidKeyBag, nullptr,
                             CFSTR("Too many iterations (DPIC %u, ITER %u)"), info.dpic,
                             info.iterations);
    }
}

void logPass(CFStringRef format, const void *call, const Stopwatch &stopwatch) {
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelMilestone, format, call, stopwatch.seconds());
}

} // namespace

ManifestEncryption::Key
ManifestEncryption::GenerateKEKFromPassword(const std::vector<std::uint8_t> &password,
                                            const KeyBag::ManifestInfo &info) {
    requireBearable(info);
    const void *call = &info; // tells the lines of calls on several threads apart
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelMilestone,
                CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword starting"), call);
    Key first;
    const ZK::WipeOnExit wipeFirst(first);
    const Stopwatch firstPass;
    fastpbkdf2_hmac_sha256(password.data(), password.size(), info.dpsl.data(), info.dpsl.size(),
                           info.dpic, first.data(), first.size());
    logPass(CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword first pass took %.1f "
                  "seconds"),
            call, firstPass);
    Key kek;
    const Stopwatch secondPass;
    fastpbkdf2_hmac_sha1(first.data(), first.size(), info.salt.data(), info.salt.size(),
                         info.iterations, kek.data(), kek.size());
    logPass(CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword second pass took %.1f "
                  "seconds"),
            call, secondPass);
    return kek;
}

ManifestEncryption::Key128
ManifestEncryption::GenerateDataKeyFromPassword(const std::vector<std::uint8_t> &password,
                                                const KeyBag::Salt &salt) {
    ZK::Encryption::Hasher hasher(ZK::Encryption::HashAlgorithm::SHA1);
    hasher.Update(password);
    hasher.Update(salt);
    auto digest = hasher.Finalize();
    const ZK::WipeOnExit wipeDigest(digest);
    Key128 key;
    std::copy_n(digest.begin(), key.size(), key.begin());
    return key;
}

} // namespace MB
