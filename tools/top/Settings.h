// Settings: what the user has chosen to see.
#pragma once

#include <cstddef>
#include <string>

namespace top {

/// What comes first in a part.
enum class Order { LOAD, TOTAL, SIZE, NAME };

constexpr const char* name_of(Order order) {
    constexpr const char* NAMES[] = {"load", "total", "size", "name"};
    return NAMES[static_cast<int>(order)];
}

struct Settings {
    Order order = Order::LOAD;
    bool reverse = false;
    std::string filter;  ///< Rows that contain it, in whatever case.
    bool held = false;
    bool help = false;
    bool typing = false;  ///< The filter is being typed.
    size_t part = 0;      ///< The one part that is shown; 0: all.
    size_t first = 0;     ///< Rows of that part that have been scrolled away.
    std::string notice;   ///< Shown in place of the keys until the next one.
};

}  // namespace top
