// The registry of components: a small table under one lock. A product offers a handful of them in its life.
#include <Infra/ComponentRegistry.h>

#include <cstring>
#include <utility>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Infra {

namespace {

struct Offer {
    IComponent* component = nullptr;  // Holds a reference; null: the place is free.
    char family[COMPONENT_NAME_LIMIT + 1] = {};
    char name[COMPONENT_NAME_LIMIT + 1] = {};
};

INFRA_CONSTINIT CMutex g_mutex{LockClass::COMPONENTS};
Offer g_offers[COMPONENT_LIMIT] INFRA_GUARDED_BY(g_mutex);

bool is_name(const char* text) {
    return text != nullptr && std::strlen(text) <= COMPONENT_NAME_LIMIT;
}

Offer* find(const char* family, const char* name) INFRA_REQUIRES(g_mutex) {
    for (Offer& offer : g_offers) {
        if (offer.component != nullptr && std::strcmp(offer.family, family) == 0 &&
            std::strcmp(offer.name, name) == 0) {
            return &offer;
        }
    }
    return nullptr;
}

Offer* free_place() INFRA_REQUIRES(g_mutex) {
    for (Offer& offer : g_offers) {
        if (offer.component == nullptr) {
            return &offer;
        }
    }
    return nullptr;
}

}  // namespace

IComponent::~IComponent() = default;

bool offerComponent(const char* family, const char* name, IComponent* component) noexcept {
    if (!is_name(family) || !is_name(name) || component == nullptr) {
        return false;
    }
    const CGuard guard(g_mutex);
    Offer* const place = find(family, name) == nullptr ? free_place() : nullptr;
    if (place == nullptr) {
        return false;
    }
    component->addRef();
    place->component = component;
    std::strcpy(place->family, family);
    std::strcpy(place->name, name);
    return true;
}

bool withdrawComponent(const char* family, const char* name) noexcept {
    if (!is_name(family) || !is_name(name)) {
        return false;
    }
    IComponent* component = nullptr;
    {
        const CGuard guard(g_mutex);
        if (Offer* const offer = find(family, name)) {
            component = std::exchange(offer->component, nullptr);
        }
    }
    if (component == nullptr) {
        return false;
    }
    component->release();  // Perhaps the last one, and then code of the product runs: with no lock of ours.
    return true;
}

IComponent* findComponent(const char* family, const char* name) noexcept {
    if (!is_name(family) || !is_name(name)) {
        return nullptr;
    }
    const CGuard guard(g_mutex);
    Offer* const offer = find(family, name);
    if (offer == nullptr) {
        return nullptr;
    }
    offer->component->addRef();
    return offer->component;
}

}  // namespace Orvex::Infra
