// Forever: static room for an object that is made at its first use and never destroyed.
#pragma once

#include <new>
#include <utility>

namespace Orvex::Infra {

/// For objects of the process that threads may use while static objects are destroyed. They need no memory,
/// so their first use cannot fail for want of it.
///
///     static Forever<Queue> room;
///     static Queue& queue = room.make();
template <class Object>
class Forever {
public:
    /// Makes the object. Once.
    template <class... Args>
    Object& make(Args&&... args) {
        return *new (static_cast<void*>(m_room)) Object(std::forward<Args>(args)...);
    }

    /// Where it is, or will be.
    Object* place() { return reinterpret_cast<Object*>(m_room); }

private:
    alignas(Object) unsigned char m_room[sizeof(Object)] = {};
};

}  // namespace Orvex::Infra
