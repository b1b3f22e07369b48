#include "qutils/plugin/plugin.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

/// An interface that writes its number to a journal when it is destroyed.
class JournalInterface : public PluginInterface {
public:
    JournalInterface(unsigned long id, std::string& journal, PluginBase* plugin = nullptr)
        : m_id(id), m_journal(journal), m_plugin(plugin)
    {
    }
    JournalInterface(const JournalInterface&) = delete;
    JournalInterface& operator=(const JournalInterface&) = delete;
    ~JournalInterface() override
    {
        m_journal += std::to_string(m_id);
        if (atEnd)
            atEnd(*this);
    }

    unsigned long getInterfaceID() override { return m_id; }
    PluginBase* getPlugin() override { return m_plugin; }

    std::function<void(JournalInterface&)> atEnd;

private:
    unsigned long m_id;
    std::string& m_journal;
    PluginBase* m_plugin;
};

TEST(Plugin, InterfacesAreFoundByTheirNumber)
{
    std::string journal;
    JournalInterface one(1, journal), two(2, journal);
    PluginBase plugin;
    EXPECT_EQ(plugin.newInterface(1), nullptr);
    plugin.addInterface(&one, 0);
    plugin.addInterface(&two, 0);
    EXPECT_EQ(plugin.newInterface(1), &one);
    EXPECT_EQ(plugin.newInterface(2), &two);
    EXPECT_EQ(plugin.newInterface(3), nullptr);
}

TEST(Plugin, FirstOfTwoInterfacesWithOneNumberIsFound)
{
    std::string journal;
    JournalInterface first(1, journal), second(1, journal);
    PluginBase plugin;
    plugin.addInterface(&first, 0);
    plugin.addInterface(&second, 0);
    EXPECT_EQ(plugin.newInterface(1), &first);
    plugin.removeInterface(&first);
    EXPECT_EQ(plugin.newInterface(1), &second);
}

TEST(Plugin, OwnedInterfacesAreDeletedWithThePluginTheNewestFirst)
{
    std::string journal;
    JournalInterface borrowed(2, journal);
    {
        PluginBase plugin;
        plugin.addInterface(new JournalInterface(1, journal), 1);
        plugin.addInterface(&borrowed, 0);
        plugin.addInterface(new JournalInterface(3, journal), -1); // Any nonzero value owns.
    }
    EXPECT_EQ(journal, "31");
}

TEST(Plugin, DeletedInterfaceLeavesTheRegister)
{
    std::string journal;
    JournalInterface borrowed(2, journal);
    PluginBase plugin;
    auto* const owned = new JournalInterface(1, journal);
    plugin.addInterface(owned, 1);
    plugin.addInterface(&borrowed, 0);
    plugin.deleteInterface(owned);
    EXPECT_EQ(journal, "1");
    plugin.deleteInterface(&borrowed);
    EXPECT_EQ(journal, "1"); // Not owned, so only unregistered.
    EXPECT_EQ(plugin.newInterface(1), nullptr);
    EXPECT_EQ(plugin.newInterface(2), nullptr);
}

TEST(Plugin, RemovedInterfaceBelongsToItsCaller)
{
    std::string journal;
    auto* const owned = new JournalInterface(1, journal);
    {
        PluginBase plugin;
        plugin.addInterface(owned, 1);
        plugin.removeInterface(owned);
        EXPECT_EQ(plugin.newInterface(1), nullptr);
    }
    EXPECT_EQ(journal, "");
    delete owned;
}

TEST(Plugin, InterfacesThatAreNotRegisteredAreLeftAlone)
{
    std::string journal;
    auto* const stranger = new JournalInterface(1, journal);
    PluginBase plugin;
    plugin.deleteInterface(stranger);
    plugin.removeInterface(stranger);
    plugin.addInterface(nullptr, 1);
    plugin.deleteInterface(nullptr);
    plugin.removeInterface(nullptr);
    EXPECT_EQ(journal, "");
    delete stranger;
}

TEST(Plugin, AddingAgainChangesTheOwnershipOnly)
{
    std::string journal;
    auto* const kept = new JournalInterface(1, journal);
    auto* const given = new JournalInterface(2, journal);
    {
        PluginBase plugin;
        plugin.addInterface(kept, 1);
        plugin.addInterface(kept, 0);
        plugin.addInterface(given, 0);
        plugin.addInterface(given, 1);
    }
    EXPECT_EQ(journal, "2"); // Once, not twice.
    delete kept;
}

TEST(Plugin, RemovingFromTheMiddleKeepsTheOthers)
{
    std::string journal;
    JournalInterface one(1, journal), two(2, journal), three(3, journal);
    PluginBase plugin;
    for (JournalInterface* each : { &one, &two, &three })
        plugin.addInterface(each, 0);
    plugin.removeInterface(&two);
    EXPECT_EQ(plugin.newInterface(1), &one);
    EXPECT_EQ(plugin.newInterface(2), nullptr);
    EXPECT_EQ(plugin.newInterface(3), &three);
}

TEST(Plugin, InterfaceMayTouchThePluginWhileItIsDeleted)
{
    std::string journal;
    PluginBase plugin;
    JournalInterface replacement(9, journal);
    auto* const owned = new JournalInterface(1, journal, &plugin);
    owned->atEnd = [&](JournalInterface& self) {
        EXPECT_EQ(plugin.newInterface(1), nullptr); // It is off the register by now.
        plugin.deleteInterface(&self);
        plugin.removeInterface(&self);
        plugin.addInterface(&replacement, 0);
    };
    plugin.addInterface(owned, 1);
    plugin.deleteInterface(owned);
    EXPECT_EQ(journal, "1");
    EXPECT_EQ(plugin.newInterface(9), &replacement);
}

TEST(Plugin, InterfaceMayDeleteOthersWhileThePluginEnds)
{
    std::string journal;
    {
        PluginBase plugin;
        auto* const first = new JournalInterface(1, journal);
        auto* const second = new JournalInterface(2, journal);
        auto* const last = new JournalInterface(3, journal);
        last->atEnd = [&plugin, &journal, first](JournalInterface&) {
            plugin.deleteInterface(first);
            plugin.addInterface(new JournalInterface(4, journal), 1);
        };
        for (JournalInterface* each : { first, second, last })
            plugin.addInterface(each, 1);
    }
    EXPECT_EQ(journal, "3142");
}

TEST(PluginInterface, DeletesItselfThroughItsPlugin)
{
    std::string journal;
    PluginBase plugin;
    auto* const owned = new JournalInterface(1, journal, &plugin);
    plugin.addInterface(owned, 1);
    owned->deleteInterface();
    EXPECT_EQ(journal, "1");
    EXPECT_EQ(plugin.newInterface(1), nullptr);
}

TEST(PluginInterface, WithoutAPluginNothingDeletesIt)
{
    std::string journal;
    JournalInterface free(1, journal);
    free.deleteInterface();
    EXPECT_EQ(journal, "");
    EXPECT_STREQ(free.getInterfaceName(), "");
}

} // namespace
