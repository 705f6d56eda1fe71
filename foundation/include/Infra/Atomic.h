// relaxedLoad, relaxedStore: reads and writes without a lock of plain fields that several threads touch.
//
// They are for flags, ready bits and counters whose layout must stay that of a plain integer or pointer
// (members of unions and of records that are compared and copied). A relaxed access orders nothing around it:
// it only makes sure that the value is whole and is really read or written at this point.
#pragma once

#include <type_traits>

namespace Orvex::Infra {

/// The value of the field at some point of this call.
template <typename Field>
inline Field relaxedLoad(const Field& field) noexcept {
    static_assert(std::is_integral_v<Field> || std::is_enum_v<Field> || std::is_pointer_v<Field>,
                  "only plain integers, enumerations and pointers can be read in one piece");
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

/// `Value` is converted to the field's own type, as an assignment would.
template <typename Field, typename Value>
inline void relaxedStore(Field& field, Value value) noexcept {
    static_assert(std::is_integral_v<Field> || std::is_enum_v<Field> || std::is_pointer_v<Field>,
                  "only plain integers, enumerations and pointers can be written in one piece");
    __atomic_store_n(&field, static_cast<Field>(value), __ATOMIC_RELAXED);
}

}  // namespace Orvex::Infra
