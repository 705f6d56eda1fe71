// TFuncBox, the one box, and R3Register.
#include "R3/print/FuncBox.h"

#include <cstring>
#include <new>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Log.h>

namespace Orvex::Reticor {

Infra::CMutex g_r3_funcbox_mutex{Infra::LockClass::R3_BOXES};
TFuncBox* g_r3_funcbox = nullptr;

int TFuncBox::Register(void* func, const char* name, const char* help) {
    if (func == nullptr || name == nullptr) {
        return -1;
    }
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    if (m_count >= CAPACITY) {
        INFRA_LOG(2, "CR3Daemon::Register func box full!\n");
        return -1;
    }
    if (Find(name) != nullptr) {
        INFRA_LOG(2, "TFuncBox::Register already exist!\n");
        return -1;
    }
    m_entries[m_count] = TFuncEntry{reinterpret_cast<R3Function>(func), name, help};
    ++m_count;
    return 0;
}

const TFuncEntry* TFuncBox::Find(const char* name) const {
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    for (int32_t i = 0; i < m_count; ++i) {
        if (std::strcmp(name, m_entries[i].name) == 0) {
            return &m_entries[i];
        }
    }
    return nullptr;
}

int TFuncBox::Count() const {
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    return m_count;
}

void TFuncBox::AddRef() {
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    ++m_references;
}

void TFuncBox::Release() {
    bool last = false;
    {
        const Infra::CGuard guard(g_r3_funcbox_mutex);
        last = --m_references == 0;
    }
    if (last) {
        delete this;
    }
}

TFuncBox* acquire_func_box() {
    const Infra::CGuard guard(g_r3_funcbox_mutex);
    if (g_r3_funcbox == nullptr) {
        g_r3_funcbox = new (std::nothrow) TFuncBox;
    }
    if (g_r3_funcbox != nullptr) {
        g_r3_funcbox->AddRef();
    } else {
        INFRA_LOG_STATIC(2, "no memory for the commands of the debug server\n");
    }
    return g_r3_funcbox;
}

void drop_func_box() {
    TFuncBox* box = nullptr;
    {
        const Infra::CGuard guard(g_r3_funcbox_mutex);
        box = std::exchange(g_r3_funcbox, nullptr);
    }
    if (box != nullptr) {
        box->Release();
    }
}

int R3Register(void* func, const char* name, const char* help) {
    FuncBoxRef box;
    box.adopt(acquire_func_box());
    return box.get() != nullptr ? box.get()->Register(func, name, help) : -1;
}

}  // namespace Orvex::Reticor
