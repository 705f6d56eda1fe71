// Member: a handler of the kit, which its pool knows from its making to its end.
#pragma once

#include <Reticor/NetHandler.h>

#include "Core/service/Message.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

class Member;

/// What a member belongs to.
class MemberHome {
public:
    /// Of the pool.
    virtual int index() const = 0;
    /// The member is no more of it: nothing of the home may be touched after that. Once, on a worker.
    virtual void gone(Member* member) = 0;

protected:
    ~MemberHome() = default;
};

/// Its end comes about on a worker, whoever asks for it.
class Member : public CNetHandler {
public:
    int handle_close(CNetHandler* self) override {
        delete self;
        return 0;
    }

    /// The word for it in lines.
    virtual const char* kind() const = 0;

    /// The pool is stopping: end when what is under way is done. And: end now; the result is whether
    /// something is lost by that. Both are called under the home's lock, so they ring and do nothing else.
    virtual void drain() = 0;
    virtual bool cut() = 0;

protected:
    explicit Member(MemberHome& home) : CNetHandler(home.index()), m_home(home) {}

    /// Posts a message to this member, of which something that it owes depends: it comes also while there is
    /// no memory.
    void tell_self(unsigned int msg) { CMessage::Tell(GetID(), GetID(), msg, 0); }

    /// The last but one act of an end; `Close` is the last.
    void leave() { m_home.gone(this); }

private:
    friend struct PoolState;

    MemberHome& m_home;
    Member* m_next = nullptr;  ///< The list is guarded by the home.
    Member* m_before = nullptr;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
