#pragma once

#include "core/zdglobal.h"

#include <memory>

// Base of every delegate and observer role. It carries a liveness token that
// holders of a ZDWeakRef check before each call, so that a delegate that has been
// destroyed is simply not called any more. Roles derive from it virtually, so an
// object that plays several roles has one token.
//
// A copy is a new object with a token of its own; references to the original do
// not follow it.
class ZD_EXPORT ZDWeakTarget
{
public:
    ZDWeakTarget() : m_token(std::make_shared<char>()) {}
    ZDWeakTarget(const ZDWeakTarget &) : ZDWeakTarget() {}
    ZDWeakTarget &operator=(const ZDWeakTarget &) { return *this; }
    virtual ~ZDWeakTarget() = default;

    std::weak_ptr<const void> weakToken() const { return m_token; }

private:
    std::shared_ptr<const void> m_token;
};

// A non-owning pointer that reads null once its target is destroyed.
template <class T> class ZDWeakRef
{
public:
    ZDWeakRef() = default;
    ZDWeakRef(T *target) : m_target(target)
    {
        if (target)
            m_token = target->weakToken();
    }

    T *get() const { return m_token.expired() ? nullptr : m_target; }
    explicit operator bool() const { return get() != nullptr; }
    bool refersTo(const void *target) const { return m_target == target && get(); }

private:
    T *m_target = nullptr;
    std::weak_ptr<const void> m_token;
};
