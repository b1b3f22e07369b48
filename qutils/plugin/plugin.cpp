#include "qutils/plugin/plugin.h"

#include <new>

namespace QUtils {

/// One registered interface; the entries are linked in the order of registration.
struct PluginBase::Entry {
    PluginInterface* interface;
    bool owned;
    Entry* next;
};

PluginInterface::~PluginInterface() = default;

const char* PluginInterface::getInterfaceName()
{
    return "";
}

void PluginInterface::deleteInterface()
{
    if (PluginBase* const plugin = getPlugin())
        plugin->deleteInterface(this); // `this` may be gone now.
}

PluginBase::~PluginBase()
{
    // Newest first, since a later interface may lean on an earlier one. Each is looked up afresh: the
    // destructor of an interface may remove others.
    while (m_first) {
        Entry* last = m_first;
        while (last->next)
            last = last->next;
        PluginBase::deleteInterface(last->interface);
    }
}

PluginInterface* PluginBase::newInterface(unsigned long id)
{
    for (const Entry* entry = m_first; entry; entry = entry->next) {
        if (entry->interface->getInterfaceID() == id)
            return entry->interface;
    }
    return nullptr;
}

void PluginBase::deleteInterface(PluginInterface* interface)
{
    Entry* const entry = *find(interface);
    const bool owned = entry && entry->owned;
    // Off the register first: the destructor of the interface may come back here.
    PluginBase::removeInterface(interface);
    if (owned)
        delete interface;
}

void PluginBase::addInterface(PluginInterface* interface, int owned)
{
    Entry** const link = find(interface);
    if (*link)
        (*link)->owned = owned != 0;
    else if (interface)
        *link = new (std::nothrow) Entry { interface, owned != 0, nullptr };
}

void PluginBase::removeInterface(PluginInterface* interface)
{
    Entry** const link = find(interface);
    if (Entry* const entry = *link) {
        *link = entry->next;
        delete entry;
    }
}

/// The link that leads to the entry of `interface`, or the last one, which holds null.
PluginBase::Entry** PluginBase::find(const PluginInterface* interface) noexcept
{
    Entry** link = &m_first;
    while (*link && (*link)->interface != interface)
        link = &(*link)->next;
    return link;
}

} // namespace QUtils
