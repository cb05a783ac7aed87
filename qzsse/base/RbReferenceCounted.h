#pragma once

#include <atomic>
#include <utility>

// Intrusive, thread-safe reference count. Objects start at 0; the first RbSmartPtr that
// takes one raises it to 1, and the last Release deletes it.
class RbReferenceCounted {
public:
    RbReferenceCounted() = default;
    // A copy is a new object: it does not inherit the original's holders.
    RbReferenceCounted(const RbReferenceCounted&) : m_refCount(0) {}
    RbReferenceCounted& operator=(const RbReferenceCounted&) { return *this; }
    virtual ~RbReferenceCounted() = default;

    virtual int getReferenceCounter() const { return m_refCount.load(std::memory_order_acquire); }

    void AddRef() const { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    void Release() const
    {
        if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    mutable std::atomic<int> m_refCount{0};
};

template <class T>
class RbSmartPtr {
public:
    RbSmartPtr() = default;
    RbSmartPtr(T* p) : m_p(p) { if (m_p) m_p->AddRef(); }
    RbSmartPtr(const RbSmartPtr& o) : m_p(o.m_p) { if (m_p) m_p->AddRef(); }
    RbSmartPtr(RbSmartPtr&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    template <class U>
    RbSmartPtr(const RbSmartPtr<U>& o) : m_p(o.Get()) { if (m_p) m_p->AddRef(); }
    ~RbSmartPtr() { if (m_p) m_p->Release(); }

    RbSmartPtr& operator=(RbSmartPtr o) noexcept
    {
        std::swap(m_p, o.m_p);
        return *this;
    }

    T* Get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p = nullptr;
};
