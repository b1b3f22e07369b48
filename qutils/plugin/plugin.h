#pragma once

#include "qutils/export.h"

namespace QUtils {

class PluginBase;

/// What every interface of a plug-in starts with.
class QUTILS_API PluginInterface {
public:
    virtual ~PluginInterface();

    /// The 32-bit number under which the interface is asked for.
    virtual unsigned long getInterfaceID() = 0;
    /// The plug-in that the interface belongs to, or null.
    virtual PluginBase* getPlugin() = 0;
    /// A name for listings; empty by default.
    virtual const char* getInterfaceName();
    /// Hands the interface back to its plug-in (`PluginBase::deleteInterface`); nothing without one.
    virtual void deleteInterface();
};

/// An object with interfaces that are found by number. Not safe for use from several threads while
/// interfaces are added or removed.
class QUTILS_API PluginBase {
public:
    PluginBase() noexcept = default;
    PluginBase(const PluginBase&) = delete;
    PluginBase& operator=(const PluginBase&) = delete;
    /// Deletes the interfaces that were added as owned.
    virtual ~PluginBase();

    /// The first registered interface whose number is `id`, or null.
    virtual PluginInterface* newInterface(unsigned long id);
    /// Removes `interface` from the register and deletes it if it was added as owned. One that is not
    /// registered is left alone, null too.
    virtual void deleteInterface(PluginInterface* interface);
    /// Registers `interface`; with `owned` nonzero it is deleted with this object. One that is registered
    /// already takes the new ownership; null is ignored. Not registered when memory is refused: then an
    /// owned one stays its caller's.
    virtual void addInterface(PluginInterface* interface, int owned);
    /// Removes `interface` from the register without deleting it.
    virtual void removeInterface(PluginInterface* interface);

private:
    struct Entry;

    Entry** find(const PluginInterface* interface) noexcept;

    Entry* m_first = nullptr;
};

} // namespace QUtils

using QUtils::PluginBase;
using QUtils::PluginInterface;
