#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "qzsse/base/CString.h"
#include "qzsse/base/detail/Utf16.h"

// Hash of a key before it is reduced modulo the bucket count. The bucket of a key decides
// where it sits in the iteration order, and that order is written into files, so these
// functions are part of the file formats.
template <class K, class Enable = void>
struct RbMapHash;

// Ids: h = h * 33 + c over the UTF-16 code units of the id, from 0. The arithmetic is
// unsigned 32-bit (wrapping), as the platform's unsigned int hash was.
template <>
struct RbMapHash<CString> {
    std::uint32_t operator()(const CString& key) const
    {
        std::uint32_t h = 0;
        qzsse::detail::ForEachUtf16Unit(key, [&h](char16_t unit) { h = h * 33u + unit; });
        return h;
    }
};

template <class K>
struct RbMapHash<K, std::enable_if_t<std::is_integral_v<K>>> {
    std::uint32_t operator()(K key) const { return static_cast<std::uint32_t>(key); }
};

// Chained hash map with a fixed bucket count. A new key goes to the head of its bucket's
// chain and iteration runs bucket by bucket, each chain from its head; copies keep the
// bucket count and that order. Callers rely on the order: a store file lists its entries
// in it.
template <class K, class V, class Hash = RbMapHash<K>>
class RbMap {
    struct Node {
        template <class... Args>
        Node(Node* next_, unsigned bucket_, Args&&... args)
            : next(next_), bucket(bucket_), entry(std::forward<Args>(args)...) {}
        Node* next;
        unsigned bucket;
        std::pair<const K, V> entry;
    };
    struct PositionTag;

public:
    static constexpr unsigned kDefaultHashTableSize = 17;

    // Opaque cursor of GetStartPosition / GetNextAssoc; nullptr once the walk is done.
    using POSITION = PositionTag*;

    explicit RbMap(unsigned hashTableSize = kDefaultHashTableSize)
        : m_buckets(checkedSize(hashTableSize), nullptr) {}

    RbMap(const RbMap& other) : m_buckets(other.m_buckets.size(), nullptr) { copyFrom(other); }

    // The source is left empty with its bucket count, so it stays usable.
    RbMap(RbMap&& other) : m_buckets(other.m_buckets.size(), nullptr) { swap(other); }

    RbMap& operator=(const RbMap& other)
    {
        if (this != &other) {
            RbMap copy(other);
            swap(copy);
        }
        return *this;
    }

    RbMap& operator=(RbMap&& other) noexcept
    {
        if (this != &other) {
            RemoveAll();
            swap(other);
        }
        return *this;
    }

    ~RbMap() { RemoveAll(); }

    void swap(RbMap& other) noexcept
    {
        m_buckets.swap(other.m_buckets);
        std::swap(m_count, other.m_count);
    }

    unsigned GetHashTableSize() const { return static_cast<unsigned>(m_buckets.size()); }
    std::ptrdiff_t GetCount() const { return static_cast<std::ptrdiff_t>(m_count); }
    std::ptrdiff_t GetSize() const { return GetCount(); }
    bool IsEmpty() const { return m_count == 0; }

    // Changes the bucket count; only allowed while the map is empty, because it would
    // reorder the entries.
    void InitHashTable(unsigned hashTableSize)
    {
        if (m_count != 0)
            throw std::logic_error("RbMap::InitHashTable on a non-empty map");
        m_buckets.assign(checkedSize(hashTableSize), nullptr);
    }

    bool Lookup(const K& key, V& value) const
    {
        const Node* node = find(key);
        if (!node)
            return false;
        value = node->entry.second;
        return true;
    }

    // Pointer to the stored value, or nullptr; spares a copy of large values.
    V* PLookup(const K& key) { Node* n = find(key); return n ? &n->entry.second : nullptr; }
    const V* PLookup(const K& key) const { const Node* n = find(key); return n ? &n->entry.second : nullptr; }

    // Overwrites an existing key in place (its position in the order is kept).
    void SetAt(const K& key, const V& value) { (*this)[key] = value; }

    V& operator[](const K& key)
    {
        const unsigned bucket = bucketOf(key);
        for (Node* n = m_buckets[bucket]; n; n = n->next)
            if (n->entry.first == key)
                return n->entry.second;
        Node* node = new Node(m_buckets[bucket], bucket, std::piecewise_construct,
                              std::forward_as_tuple(key), std::forward_as_tuple());
        m_buckets[bucket] = node;
        ++m_count;
        return node->entry.second;
    }

    bool RemoveKey(const K& key)
    {
        Node** link = &m_buckets[bucketOf(key)];
        for (; *link; link = &(*link)->next) {
            if ((*link)->entry.first == key) {
                Node* dead = *link;
                *link = dead->next;
                delete dead;
                --m_count;
                return true;
            }
        }
        return false;
    }

    void RemoveAll()
    {
        for (Node*& head : m_buckets) {
            while (head) {
                Node* dead = head;
                head = head->next;
                delete dead;
            }
        }
        m_count = 0;
    }

    POSITION GetStartPosition() const { return toPosition(firstFrom(0)); }

    // Yields the entry at pos and moves pos on (to nullptr after the last entry).
    void GetNextAssoc(POSITION& pos, K& key, V& value) const
    {
        const Node* node = reinterpret_cast<const Node*>(pos);
        key = node->entry.first;
        value = node->entry.second;
        pos = toPosition(successor(node));
    }

    template <bool IsConst>
    class Iterator {
        using NodePtr = std::conditional_t<IsConst, const Node*, Node*>;
        using MapPtr = std::conditional_t<IsConst, const RbMap*, RbMap*>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::pair<const K, V>;
        using difference_type = std::ptrdiff_t;
        using reference = std::conditional_t<IsConst, const value_type&, value_type&>;
        using pointer = std::conditional_t<IsConst, const value_type*, value_type*>;

        Iterator() = default;
        Iterator(MapPtr map, NodePtr node) : m_map(map), m_node(node) {}
        operator Iterator<true>() const requires(!IsConst) { return Iterator<true>(m_map, m_node); }

        reference operator*() const { return m_node->entry; }
        pointer operator->() const { return &m_node->entry; }
        Iterator& operator++()
        {
            m_node = const_cast<NodePtr>(m_map->successor(m_node));
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator old = *this;
            ++*this;
            return old;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a.m_node == b.m_node; }

    private:
        MapPtr m_map = nullptr;
        NodePtr m_node = nullptr;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    iterator begin() { return iterator(this, const_cast<Node*>(firstFrom(0))); }
    iterator end() { return iterator(this, nullptr); }
    const_iterator begin() const { return const_iterator(this, firstFrom(0)); }
    const_iterator end() const { return const_iterator(this, nullptr); }

private:
    static size_t checkedSize(unsigned hashTableSize)
    {
        if (hashTableSize == 0)
            throw std::invalid_argument("RbMap: the bucket count must be at least 1");
        return hashTableSize;
    }

    unsigned bucketOf(const K& key) const
    {
        return static_cast<unsigned>(Hash()(key) % static_cast<std::uint32_t>(m_buckets.size()));
    }

    const Node* find(const K& key) const
    {
        for (const Node* n = m_buckets[bucketOf(key)]; n; n = n->next)
            if (n->entry.first == key)
                return n;
        return nullptr;
    }
    Node* find(const K& key) { return const_cast<Node*>(std::as_const(*this).find(key)); }

    const Node* firstFrom(size_t bucket) const
    {
        for (; bucket < m_buckets.size(); ++bucket)
            if (m_buckets[bucket])
                return m_buckets[bucket];
        return nullptr;
    }

    const Node* successor(const Node* node) const
    {
        return node->next ? node->next : firstFrom(size_t{node->bucket} + 1);
    }

    static POSITION toPosition(const Node* node)
    {
        return reinterpret_cast<POSITION>(const_cast<Node*>(node));
    }

    // Copies chain by chain, appending at each chain's tail so that the order is kept.
    void copyFrom(const RbMap& other)
    {
        try {
            for (size_t b = 0; b < other.m_buckets.size(); ++b) {
                Node** tail = &m_buckets[b];
                for (const Node* n = other.m_buckets[b]; n; n = n->next) {
                    *tail = new Node(nullptr, n->bucket, n->entry);
                    tail = &(*tail)->next;
                    ++m_count;
                }
            }
        } catch (...) {
            RemoveAll();
            throw;
        }
    }

    std::vector<Node*> m_buckets;
    size_t m_count = 0;
};
