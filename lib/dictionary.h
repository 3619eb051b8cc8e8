// KyDictionary: a hash table of item pointers with chained buckets that grows by
// rebuilding, refuses duplicates and can expire items to stay under a limit. The assoc
// classes are its usual items: a key with a value, hashed and compared by the key.
// Properties and the DNS cache keep their entries in one.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "lib/numbers.h"

// Hash of a key or item: an unsigned integer is its own hash; anything else provides
// HashValue() (strings and byte buffers hash their bytes).
template <std::unsigned_integral K>
constexpr std::uint32_t KyHashValue(K key) {
    return static_cast<std::uint32_t>(key);
}

template <typename K>
requires requires(const K& key) {
    key.HashValue();
}
std::uint32_t KyHashValue(const K& key) {
    return static_cast<std::uint32_t>(key.HashValue());
}

// Items that Expire() may consider tell through a member `KyStatus CanItemBeExpired() const`.
// Item types without that member can be stored, but Expire() is then unavailable.
template <typename T>
concept KyExpirable = requires(const T& item) {
    { item.CanItemBeExpired() } -> std::convertible_to<bool>;
};

// The dictionary does not own its items except where a call says so: Flush(true), Expire()
// and Delete() destroy items; destroying the dictionary does not.
template <typename T>
class KyDictionary {
    // A bucket keeps its items in insertion order, as a pointer list would; a plain vector
    // does that with one allocation per bucket instead of two, which rebuilds feel most.
    using Bucket = std::vector<T*>;

public:
    static constexpr std::size_t kNoExpiryLimit = ~std::size_t{0};

    explicit KyDictionary(std::size_t buckets = 16, std::size_t expiryLimit = kNoExpiryLimit)
        : buckets_(buckets == 0 ? 1 : buckets), threshold_(3 * buckets_.size()),
          expiryLimit_(expiryLimit) {}

    // Refuses an item equal to one already present (the item is then not taken).
    KyStatus Insert(T* item) {
        if (count_ >= threshold_) {
            Rebuild();
        }
        Bucket& bucket = BucketOf(*item);
        for (T* present : bucket) {
            if (*present == *item) {
                return Failure;
            }
        }
        bucket.push_back(item);
        ++count_;
        return Success;
    }

    // The stored item equal to key, or null.
    T* Find(const T& key) const {
        const Bucket& bucket = buckets_[BucketIndex(key)];
        for (T* present : bucket) {
            if (*present == key) {
                return present;
            }
        }
        return nullptr;
    }

    // Takes the item equal to key out of the table and hands it to the caller.
    T* Remove(const T& key) {
        Bucket& bucket = BucketOf(key);
        for (std::size_t i = 0; i < bucket.size(); ++i) {
            if (*bucket[i] == key) {
                T* item = bucket[i];
                bucket.erase(bucket.begin() + static_cast<std::ptrdiff_t>(i));
                --count_;
                return item;
            }
        }
        return nullptr;
    }

    // Removes and destroys the item equal to key; Failure when there is none.
    KyStatus Delete(const T& key) {
        T* item = Remove(key);
        delete item;
        return AsStatus(item != nullptr);
    }

    // Deletes expirable items, starting at a random bucket, until the count is within the
    // limit; a further pass is made only while the previous one found something.
    KyStatus Expire() requires KyExpirable<T> {
        bool removedAny = false;
        for (int attempt = 0; attempt < 6 && count_ > expiryLimit_; ++attempt) {
            if (!ExpirePass()) {
                break;
            }
            removedAny = true;
        }
        return AsStatus(removedAny);
    }

    void Flush(bool deleteItems) {
        for (Bucket& bucket : buckets_) {
            if (deleteItems) {
                for (T* item : bucket) {
                    delete item;
                }
            }
            bucket.clear();
        }
        count_ = 0;
    }

    // Visits every item, bucket by bucket, each bucket in insertion order.
    template <typename F>
    void ForEach(F&& visit) const {
        for (const Bucket& bucket : buckets_) {
            for (T* item : bucket) {
                visit(*item);
            }
        }
    }

    void SetExpiryLimit(std::size_t limit) { expiryLimit_ = limit; }
    std::size_t ExpiryLimit() const { return expiryLimit_; }
    std::size_t Length() const { return count_; }
    std::size_t BucketCount() const { return buckets_.size(); }
    // Falls by two with every rebuild; informational only.
    int RebuildAllowance() const { return allowance_; }

private:
    std::size_t BucketIndex(const T& item) const { return KyHashValue(item) % buckets_.size(); }
    Bucket& BucketOf(const T& item) { return buckets_[BucketIndex(item)]; }

    void Rebuild() {
        std::vector<Bucket> old(buckets_.size() * 4);
        old.swap(buckets_);
        threshold_ *= 4;
        allowance_ -= 2;
        for (Bucket& bucket : old) {
            for (T* item : bucket) {
                BucketOf(*item).push_back(item);
            }
        }
    }

    // One walk over all buckets from a random start; true when it deleted anything.
    bool ExpirePass() {
        const std::size_t n = buckets_.size();
        const std::size_t start = static_cast<std::size_t>(std::rand()) % n;
        bool removed = false;
        for (std::size_t step = 1; step <= n && count_ > expiryLimit_; ++step) {
            Bucket& bucket = buckets_[(start + step) % n];
            for (std::size_t i = 0; i < bucket.size(); ++i) {
                if (bucket[i]->CanItemBeExpired()) {
                    delete bucket[i];
                    bucket.erase(bucket.begin() + static_cast<std::ptrdiff_t>(i));
                    --count_;
                    removed = true;
                    break;
                }
            }
        }
        return removed;
    }

    std::vector<Bucket> buckets_;
    std::size_t count_ = 0;
    std::size_t threshold_;
    int allowance_ = 28;
    std::size_t expiryLimit_;
};

// A key held by value and a value held by pointer that the assoc does not own.
template <typename K, typename V>
class KyDIAssoc {
public:
    explicit KyDIAssoc(const K& key, V* value = nullptr) : key_(key), value_(value) {}
    virtual ~KyDIAssoc() = default;
    KyDIAssoc(const KyDIAssoc&) = default;
    KyDIAssoc& operator=(const KyDIAssoc&) = default;

    const K& Key() const { return key_; }
    V* Value() const { return value_; }
    void SetValue(V* value) { value_ = value; }

    bool operator==(const KyDIAssoc& other) const { return key_ == other.key_; }
    std::uint32_t HashValue() const { return KyHashValue(key_); }
    // Expiry is the value's decision; an assoc without a value may always go.
    KyStatus CanItemBeExpired() const requires KyExpirable<V> {
        return AsStatus(value_ == nullptr || value_->CanItemBeExpired());
    }

protected:
    K key_;
    V* value_;
};

// The same, but the assoc owns its value and deletes it with itself.
template <typename K, typename V>
class KyDIAssocOwnsMemory : public KyDIAssoc<K, V> {
public:
    using KyDIAssoc<K, V>::KyDIAssoc;
    ~KyDIAssocOwnsMemory() override { delete this->value_; }
    KyDIAssocOwnsMemory(const KyDIAssocOwnsMemory&) = delete;
    KyDIAssocOwnsMemory& operator=(const KyDIAssocOwnsMemory&) = delete;

    // Replaces the value, deleting the previous one.
    void SetValue(V* value) {
        if (value != this->value_) {
            delete this->value_;
            this->value_ = value;
        }
    }
};

// Key and value both held by value.
template <typename K, typename V>
class KyDDAssoc {
public:
    explicit KyDDAssoc(const K& key, const V& value = V{}) : key_(key), value_(value) {}

    const K& Key() const { return key_; }
    const V& Value() const { return value_; }
    V& Value() { return value_; }
    void SetValue(const V& value) { value_ = value; }

    bool operator==(const KyDDAssoc& other) const { return key_ == other.key_; }
    std::uint32_t HashValue() const { return KyHashValue(key_); }
    KyStatus CanItemBeExpired() const requires KyExpirable<V> {
        return AsStatus(value_.CanItemBeExpired());
    }

private:
    K key_;
    V value_;
};
