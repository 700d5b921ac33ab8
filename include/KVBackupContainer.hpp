// A value wrapper for containers.
#pragma once

#include "KVBackupContainer.h"
#include "support/cf/Type.hpp"
#include "support/zk/IOSVersion.hpp"

// Holds one retained container, or nothing.
class KV_VISIBLE KVBackupContainer : public CF::Type {
  public:
    KVBackupContainer() noexcept = default;
    // Retains; null makes an empty wrapper.
    explicit KVBackupContainer(KVBackupContainerClass *container) noexcept;
    // Takes over a reference that the caller owns.
    KVBackupContainer(CF::adopt_t, KVBackupContainerClass *container) noexcept;
    KVBackupContainer(const KVBackupContainer &other) noexcept;
    KVBackupContainer(KVBackupContainer &&other) noexcept;
    KVBackupContainer &operator=(KVBackupContainer other) noexcept;
    ~KVBackupContainer() override;

    // The held container, not retained.
    CFTypeRef GetCFObject() const noexcept override;
    KVBackupContainerClass *get() const noexcept { return container_; }

    // A wrapper of a deep copy; empty when this one is, or when copying fails.
    KVBackupContainer Copy() const;
    // The iOS version recorded for the container; (-1, -1, 0) when empty.
    ZK::ios_version get_source_ios_version() const noexcept;

  private:
    KVBackupContainerClass *container_ = nullptr;
};
