// Page: the page for people, embedded from page.html.
#pragma once

#include <string_view>

namespace relay {

extern const std::string_view kPage;

}  // namespace relay
