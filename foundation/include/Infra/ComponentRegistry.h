// IComponent and the registry in which a program offers components by name to the libraries that it links.
//
// Products use it through <component/Component.h>, which hands out typed pointers.
#pragma once

#include <Infra/Export.h>

namespace Orvex::Infra {

/// An object that counts its references, and ends with the last one. It is made with the first reference
/// taken by its maker. Both operations can be called from any thread.
class INFRA_API IComponent {
public:
    /// Takes a reference. Only while the object is known alive.
    virtual void addRef() noexcept = 0;
    /// Drops a reference; the object is gone after the last.
    virtual void release() noexcept = 0;

    IComponent(const IComponent&) = delete;
    IComponent& operator=(const IComponent&) = delete;

protected:
    IComponent() noexcept = default;
    virtual ~IComponent();
};

/// The longest family or name, in bytes without the end mark, and the most components at a time.
constexpr int COMPONENT_NAME_LIMIT = 63;
constexpr int COMPONENT_LIMIT = 64;

/// Offers `component` as `name` of `family`; the registry takes a reference of its own and copies the texts.
/// False, and nothing changed, if an argument is null, a text is too long, a component of that family and
/// name is offered already, or there are COMPONENT_LIMIT of them. Any thread; works before main.
INFRA_API bool offerComponent(const char* family, const char* name, IComponent* component) noexcept;

/// Ends the offer and drops the registry's reference; whoever has found the component keeps it. False if
/// nothing is offered by that name. Any thread.
INFRA_API bool withdrawComponent(const char* family, const char* name) noexcept;

/// The component, with a reference that the caller releases; null if nothing is offered by that name. Any
/// thread.
INFRA_API IComponent* findComponent(const char* family, const char* name) noexcept;

}  // namespace Orvex::Infra
