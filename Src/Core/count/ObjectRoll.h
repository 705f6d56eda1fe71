// ObjectRoll: the objects that tell figures of themselves.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/Stats.h>

namespace Orvex::Reticor {

/// What objects of one kind have to tell. Constant, and as long as the process.
struct ObjectKind {
    struct Figure {
        const char* name;  ///< Null after the last.
        const char* help;
        bool counter;          ///< Rises for as long as the object lives.
        bool is_name = false;  ///< Tells something apart: figures of several objects are not added up.
    };

    const char* name;
    std::array<Figure, OBJECT_FIGURES> figures;
};

using ObjectValues = std::array<uint64_t, OBJECT_FIGURES>;

/// One object at one moment.
struct ObjectRow {
    const ObjectKind* kind;
    int64_t id;
    ObjectValues values;
};

class RollEntry;

/// All objects that are whole, in one list.
///
/// Thread safety: any thread.
class ObjectRoll {
public:
    /// The object of the entry is whole, and has this id.
    static void enter(RollEntry& entry, int64_t id);
    /// It goes. Nothing, if it never was whole.
    static void leave(RollEntry& entry);
    /// Adds a row for each object, the youngest first. Memory is taken with the roll's lock held;
    /// std::bad_alloc comes out of it.
    static void read(std::vector<ObjectRow>& rows);

private:
    static Infra::CMutex sm_mutex;
    static RollEntry* sm_first INFRA_GUARDED_BY(sm_mutex);
};

/// A part of an object that is to be seen in snapshots, the last one, so that it goes first.
///
/// Thread safety: enter once, by the object's creator; reading any time from any thread.
class RollEntry {
public:
    /// `tell` gives the object's figures, in the order of its kind. It is called from any thread, with the
    /// roll's lock held, and may take none.
    using Tell = ObjectValues (*)(const void* object);

    RollEntry(const ObjectKind& kind, Tell tell, const void* object)
        : m_kind(kind), m_tell(tell), m_object(object) {}
    ~RollEntry() { ObjectRoll::leave(*this); }
    RollEntry(const RollEntry&) = delete;
    RollEntry& operator=(const RollEntry&) = delete;

    /// The object is whole, and has this id.
    void enter(int64_t id) { ObjectRoll::enter(*this, id); }

private:
    friend class ObjectRoll;

    const ObjectKind& m_kind;
    const Tell m_tell;
    const void* const m_object;
    int64_t m_id = 0;
    RollEntry* m_next = nullptr;
    RollEntry** m_link_to_me = nullptr;  ///< Null while it is not on the roll.
};

}  // namespace Orvex::Reticor
