#include <gtest/gtest.h>

#include <tolvin/kernel/kernelvunode.h>
#include <tolvin/performer/pf.h>

#include "support/capture.h"

// Appends nodes (A to E), links pairs of them by hand, removes one twice, and returns what was printed and the nodes
// left in list order, '!' where a link is wrong or an end not closed.
static std::string remove(const std::string &nodes, const std::string &links, char removed)
{
    vunode node[5] = {}, &gone = node[removed - 'A'];
    vulist list = {};
    for (char letter : nodes)
    {
        vunodeAppend(&list, &node[letter - 'A']);
    }
    for (size_t i = 0; i < links.size(); i += 2)
    {
        node[links[i] - 'A'].next = &node[links[i + 1] - 'A'];
        node[links[i + 1] - 'A'].prev = &node[links[i] - 'A'];
    }
    std::string left = capturedStderr([&] { vunodeRemove(&list, &gone), vunodeRemove(&list, &gone); });
    const vunode *last = nullptr;
    for (const vunode *n = list.first; n != nullptr && left.size() < 99; last = n, n = n->next)
    {
        left += n->prev == last ? static_cast<char>('A' + (n - node)) : '!';
    }
    return list.last == last && !gone.next && !gone.prev ? left : left + "!";
}

TEST(Nodes, RemoveKeepsOrderAndRepairsEnds)
{
    const std::string head = "Mismatch Head Node\n", tail = "Mismatch Tail Node\n";
    EXPECT_EQ(remove("ABC", "", 'A'), "BC");
    EXPECT_EQ(remove("ABC", "", 'B'), "AC");
    EXPECT_EQ(remove("ABC", "", 'C'), "AB");
    EXPECT_EQ(remove("A", "", 'A'), "");
    EXPECT_EQ(remove("CD", "BCAB", 'C'), head + "ABD");
    EXPECT_EQ(remove("AA", "", 'A'), head);
    EXPECT_EQ(remove("ABCA", "", 'A'), head + "BC");
    EXPECT_EQ(remove("ABC", "CA", 'A'), head + "BC");
    EXPECT_EQ(remove("ABC", "CA", 'C'), tail + "AB");
    EXPECT_EQ(remove("AB", "BCCD", 'B'), tail + "ACD");
    EXPECT_EQ(remove("A", "AB", 'A'), "B");
    EXPECT_EQ(remove("B", "ABBC", 'B'), head + tail);
}

TEST(Nodes, RemoveOfANodeThatWentToASecondListSavesTheFirst)
{
    vunode node[4] = {};
    vulist list = {}, second = {};
    for (vunode &each : node)
    {
        vunodeAppend(&each < node + 2 ? &list : &second, &each);
    }
    vunodeAppend(&second, &node[0]);
    EXPECT_EQ(capturedStderr([&] { vunodeRemove(&list, &node[0]); }), "Mismatch Head Node\n");
    EXPECT_TRUE(list.first == &node[1] && list.last == &node[1] && node[1].prev == nullptr && node[1].next == nullptr);
    EXPECT_TRUE(second.first == &node[2] && node[2].next == &node[3] && node[3].next == nullptr);
}

TEST(Nodes, NamesNullsAndCount)
{
    ASSERT_EQ(pfSharedArenaSize(1 << 17), 1);
    char name[] = "one";
    const std::string tooLong(1 << 18, 'x');
    const char *const names[] = {nullptr, tooLong.c_str(), name, name};
    vunode nodes[4];
    vulist list = {};
    for (int i = 0; i < 4; ++i)
    {
        nodes[i] = {nodes, nodes, name, 9, 9};
        vunodeInit(&nodes[i], names[i]);
        EXPECT_TRUE(!nodes[i].next && !nodes[i].prev && nodes[i].type == 0 && nodes[i].aux == 0);
        vunodeAppend(&list, &nodes[i]);
    }
    name[0] = 'O';
    EXPECT_EQ(vunodeListFindNamed(&list, "one"), &nodes[2]);
    EXPECT_EQ(vunodeListFindNamed(&list, "One"), nullptr);
    EXPECT_EQ(vunodesCount(&list), 4);
    vunodeDelete(&list, &nodes[2]);
    vunodeDelete(&list, &nodes[3]);
    pfArenaInfo info;
    pfGetArenaInfo(&info);
    EXPECT_TRUE(nodes[1].name == nullptr && nodes[2].name == nullptr && info.blocksInUse == 0);
    const auto nulls = [&] { vunodeRemove(nullptr, nodes), vunodeDelete(&list, nullptr), vunodesCount(nullptr); };
    EXPECT_EQ(capturedStderr(nulls), "kernelvunode:263 Debug: List NULL\nkernelvunode:267 Debug: Node NULL\n"
                                     "kernelvunode:451: Warning: NULL List\n");
}
