// Mistakes with locks that clang's thread-safety analysis must refuse. script/check_annotations compiles this
// file once per number of MISTAKE; 0 has none and must compile.
#include <Infra/Mutex.h>
#include <Infra/ReadWriteMutex.h>
#include <Infra/ThreadAnnotations.h>

namespace {

namespace Infra = Orvex::Infra;

class CAccount {
public:
    int balance() {
        Infra::CGuard guard(m_mutex);
        return balance_locked();
    }
    void rename(int name) {
        Infra::CWriteGuard guard(m_names);
        m_name = name;
    }
    int name() {
        Infra::CReadGuard guard(m_names);
        return m_name;
    }

#if MISTAKE == 1  // A guarded member is read without its lock.
    int wrong() {
        return m_balance;
    }
#elif MISTAKE == 2  // A guarded member is written under the reader's half of its lock.
    void wrong() {
        Infra::CReadGuard guard(m_names);
        m_name = 1;
    }
#elif MISTAKE == 3  // A function that wants the lock held is called without it.
    int wrong() {
        return balance_locked();
    }
#elif MISTAKE == 4  // A lock is entered and not left.
    void wrong() {
        m_mutex.enter();
    }
#elif MISTAKE == 5  // The result of tryEnter is not looked at.
    void wrong() {
        m_mutex.tryEnter();
        m_balance = 0;
    }
#elif MISTAKE == \
    6  // A function that takes the lock itself, and forbids its caller to hold it, is called under it.
    void outer() INFRA_EXCLUDES(m_mutex) {
        balance();
    }
    void wrong() {
        Infra::CGuard guard(m_mutex);
        outer();
    }
#endif

private:
    int balance_locked() INFRA_REQUIRES(m_mutex) {
        return m_balance;
    }

    Infra::CMutex m_mutex;
    int m_balance INFRA_GUARDED_BY(m_mutex) = 0;
    Infra::CReadWriteMutex m_names;
    int m_name INFRA_GUARDED_BY(m_names) = 0;
};

}  // namespace

int main() {
    CAccount account;
    account.rename(account.balance());
    return account.name();
}
