// Components by name: ClassID, ServerInfo, and CComponentHelper, which offers and finds them.
#pragma once

#include <component/ComPtr.h>

namespace Orvex::Component {

/// The family in which a component is offered. "Local" is the one of this process's own services.
class ClassID {
public:
    /// `name` is kept by pointer: give a literal.
    explicit constexpr ClassID(const char* name) noexcept : m_name(name) {}
    /// The name that was given.
    constexpr const char* name() const noexcept { return m_name; }

private:
    const char* m_name;
};

/// Where a component lives.
struct ServerInfo {
    const char* address;  ///< Null: in this process.

    static const ServerInfo none;  ///< No server: a component of this process.
};
inline constexpr ServerInfo ServerInfo::none = {nullptr};

/// Offers components, and finds them. All operations are static.
///
/// A console, for instance, is offered before the first pool is created:
/// `CComponentHelper::offer(ClassID("Local"), "Console", TComPtr<Manager::IConsole>::adopt(new MyConsole))`.
///
/// Thread safety: any thread, also before main.
class CComponentHelper {
public:
    /// Offers `component` as `name` of the family. The offer holds a reference until `withdraw`. False if the
    /// pointer is empty, the name is taken, or 64 components are offered; texts may have 63 bytes.
    template <typename Interface>
    static bool offer(const ClassID& family, const char* name, const TComPtr<Interface>& component) noexcept {
        return Infra::offerComponent(family.name(), name, component.get());
    }

    /// Ends the offer; whoever has found the component keeps it. False if there is no such offer.
    static bool withdraw(const ClassID& family, const char* name) noexcept {
        return Infra::withdrawComponent(family.name(), name);
    }

    /// The component of that family and name, with a reference. Empty if there is no such offer, if it does
    /// not have this interface, and for any server: components of other processes are not reached.
    template <typename Interface>
    static TComPtr<Interface> getComponentFactory(const ClassID& family, const char* name,
                                                  const ServerInfo& server) noexcept {
        if (server.address != nullptr) {
            return {};
        }
        return TComPtr<Interface>(TComPtr<IUnknown>::adopt(Infra::findComponent(family.name(), name)));
    }
};

}  // namespace Orvex::Component
