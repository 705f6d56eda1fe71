// TFuncBox, the one box, and R3Register.
#include "R3/FuncBox.h"

#include <cstring>
#include <new>

#include <Infra/Log.h>

namespace Orvex::Reticor {

TFuncBox* g_r3_funcbox = nullptr;

int TFuncBox::Register(void* func, const char* name, const char* help) {
    if (func == nullptr || name == nullptr) {
        return -1;
    }
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
    for (int32_t i = 0; i < m_count; ++i) {
        if (std::strcmp(name, m_entries[i].name) == 0) {
            return &m_entries[i];
        }
    }
    return nullptr;
}

int R3Register(void* func, const char* name, const char* help) {
    if (g_r3_funcbox == nullptr) {
        g_r3_funcbox = new (std::nothrow) TFuncBox;
        if (g_r3_funcbox == nullptr) {
            return -1;
        }
    }
    return g_r3_funcbox->Register(func, name, help);
}

}  // namespace Orvex::Reticor
