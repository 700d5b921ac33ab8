// Keys from passwords.
#include "MB/ManifestEncryption.hpp"

#include "Kelvane/Error.hpp"
#include "Kelvane/SharedState.hpp"
#include "crypto/WatchedPBKDF2.hpp"
#include "support/zk/Encryption.hpp"
#include "support/zk/Log.hpp"
#include "support/zk/Secret.hpp"

#include <algorithm>
#include <chrono>
#include <span>

namespace MB {
namespace {

// What the digests take to fill a key.
constexpr std::uint32_t kBlocksOfSHA256 = 1;
constexpr std::uint32_t kBlocksOfSHA1 = 2;

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

void requireWhole(bool derived) {
    if (!derived) {
        throw Kelvane::Error(kKVErrorUnlockFailed, nullptr, "The derivation of keys was stopped");
    }
}

// Turns the rounds of both passes into iterations. Empty progress is never called.
class Watch {
  public:
    Watch(const KeyBag::ManifestInfo &info, const DerivationProgress &progress)
        : progress_(progress), total_(std::uint64_t{info.dpic} + info.iterations) {
        if (progress_) {
            requireWhole(progress_(0, total_));
        }
    }

    // For a pass that does its iterations for each of so many blocks.
    Kelvane::RoundObserver Observer(std::uint32_t iterations, std::uint32_t blocks) {
        if (!progress_) {
            return {};
        }
        before_ += pass_;
        pass_ = iterations;
        rounds_ = 0;
        return [this, blocks](std::uint32_t rounds) {
            rounds_ += rounds;
            return progress_(before_ + rounds_ / blocks, total_);
        };
    }

  private:
    const DerivationProgress &progress_;
    std::uint64_t total_;
    std::uint64_t before_ = 0; // iterations of passes that are done
    std::uint64_t pass_ = 0;
    std::uint64_t rounds_ = 0;
};

void logPass(CFStringRef format, const void *call, const Stopwatch &stopwatch) {
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelMilestone, format, call, stopwatch.seconds());
}

const CFStringRef kSecondPass =
    CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword second pass took %.1f seconds");
const CFStringRef kOnlyPass =
    CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword only pass took %.1f seconds");

// The pass that makes the key; the caller overwrites it.
ManifestEncryption::Key lastPass(std::span<const std::uint8_t> secret,
                                 const KeyBag::ManifestInfo &info, Watch &watch, const void *call,
                                 CFStringRef format) {
    ManifestEncryption::Key kek;
    const Stopwatch stopwatch;
    try {
        requireWhole(Kelvane::DeriveBySHA1({secret, info.salt, info.iterations}, kek,
                                           watch.Observer(info.iterations, kBlocksOfSHA1)));
    } catch (...) {
        ZK::Wipe(kek); // a host's callable may throw between two blocks of the key
        throw;
    }
    logPass(format, call, stopwatch);
    return kek;
}

} // namespace

ManifestEncryption::Key
ManifestEncryption::GenerateKEKFromPassword(const std::vector<std::uint8_t> &password,
                                            const KeyBag::ManifestInfo &info) {
    return GenerateKEKFromPassword(password, info, {});
}

ManifestEncryption::Key
ManifestEncryption::GenerateKEKFromPassword(const std::vector<std::uint8_t> &password,
                                            const KeyBag::ManifestInfo &info,
                                            const DerivationProgress &progress) {
    requireBearable(info);
    Watch watch(info, progress);
    const void *call = &info; // tells the lines of calls on several threads apart
    ZLLogDomain(Kelvane::GetLogDomain(), kZLLogLevelMilestone,
                CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword starting"), call);
    if (info.onePass) {
        return lastPass(password, info, watch, call, kOnlyPass);
    }
    Key first;
    const ZK::WipeOnExit wipeFirst(first);
    const Stopwatch firstPass;
    requireWhole(Kelvane::DeriveBySHA256({password, info.dpsl, info.dpic}, first,
                                         watch.Observer(info.dpic, kBlocksOfSHA256)));
    logPass(CFSTR("(MB::ManifestEncryption %p) GenerateKEKFromPassword first pass took %.1f "
                  "seconds"),
            call, firstPass);
    return lastPass(first, info, watch, call, kSecondPass);
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
