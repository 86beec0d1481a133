#include <gtest/gtest.h>

#include <map>
#include <sys/resource.h>
#include <unistd.h>

#include <tolvin/kernel/kernelvulist.h>

// The heap is exhausted on purpose below.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

static char letters[] = "abcdefghij"; // the data of the entries
static const std::map<char, int (*)(vuList *, void *)> kAdds = {
    {'i', vuListInsert}, {'p', vuListAppend}, {'a', vuListAdd}};
static const std::map<char, void *(*)(vuList *)> kMoves = {{'r', vuListRemove},  {'f', vuListGetFirst},
                                                           {'l', vuListGetLast}, {'c', vuListGetCurr},
                                                           {'<', vuListGetPrev}, {'>', vuListGetNext}};

// Runs a script, in which an adding operation takes the letter that follows and a digit is a position. Returns the
// letters that came back ('-' for null), a blank, and the list with its cursor in capitals ('!' for a wrong link).
static std::string run(vuList *list, const std::string &script)
{
    std::string results, state;
    for (size_t i = 0; i < script.size(); ++i)
    {
        if (const auto add = kAdds.find(script[i]); add != kAdds.end())
        {
            const int size = add->second(list, &letters[script[++i] - 'a']);
            EXPECT_EQ(size, list != nullptr ? list->size : 0);
            continue;
        }
        const auto move = kMoves.find(script[i]);
        const void *data = move != kMoves.end() ? move->second(list) : vuListGetAt(list, script[i] - '0');
        results += data != nullptr ? *static_cast<const char *>(data) : '-';
    }
    const vuListEntry *last = nullptr;
    for (const vuListEntry *entry = list != nullptr ? list->first : nullptr; entry != nullptr;
         last = entry, entry = entry->next)
    {
        const int letter = *static_cast<const char *>(entry->data);
        state += static_cast<char>(entry->prev != last ? '!' : entry == list->curr ? toupper(letter) : letter);
    }
    EXPECT_TRUE(list == nullptr || list->last == last);
    EXPECT_EQ(vuListGetSize(list), list != nullptr ? static_cast<int>(state.size()) : -1);
    EXPECT_EQ(vuListGetPosi(list), static_cast<int>(state.find_first_of("ABCDEFGHIJ"))); // not found: -1
    return results + " " + state;
}

TEST(List, OperationsMoveEntriesAndCursor)
{
    vuList list;
    EXPECT_EQ(vuListInit(&list), 1);
    const char *const steps[][2] = {
        {"flcr<>0", "------- "}, {"ib", " B"},        {"iapc", " aBc"},
        {"aef", "a Abce"},       {"<id", "- dAbce"},  {"l>c", "e-e dabcE"},
        {"pf<ig", "c dabgCef"},  {"r", "c dabgEf"},   {">r", "ff dabgE"},
        {"fr", "dd Abge"},       {"47/", "--- Abge"}, {"3021303", "eagbeae abgE"},
        {"rrrr", "egba "},       {"aar", "a "},       {"aaabacadaeafagah7520461", "hfcaegb aBcdefgh"},
        {"rrrrrrr", "bcdefgh A"}};
    for (const auto &[script, result] : steps)
    {
        EXPECT_EQ(run(&list, script), result) << script;
    }
    EXPECT_EQ(vuListInsert(&list, nullptr) + vuListAppend(&list, nullptr) + vuListAdd(&list, nullptr), 0);
    EXPECT_EQ(vuListFree(&list), 1);
    EXPECT_EQ(run(&list, "r"), "a ");
    EXPECT_EQ(vuListFree(&list), 0);
}

TEST(List, NullListsAndNullDataAreTolerated)
{
    EXPECT_EQ(run(nullptr, "iapaaaflcr<>0"), "------- ");
    EXPECT_EQ(vuListInit(nullptr) + vuListOptimize(nullptr), 0);
    EXPECT_EQ(vuListFree(nullptr), -1);
}

TEST(List, OptimizeMarksAndExhaustedHeapChangesNothing)
{
    vuList list;
    vuListInit(&list);
    EXPECT_EQ(vuListOptimize(&list), 0);
    for (const char *change : {"aa", "pb", "ic", "r", "<"})
    {
        run(&list, change);
        EXPECT_EQ(list.optimized, *change == '<');
        EXPECT_EQ(vuListOptimize(&list), 1);
        EXPECT_EQ(list.posi, *change == '<' ? 0 : list.size - 1); // no walk when marked already
    }
    const auto useUpAndAdd = [&]
    {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_AS, &none);
        void *volatile block; // keeps the compiler from dropping the allocations
        for (size_t bytes = 1024; bytes > 0; bytes -= block == nullptr)
        {
            block = malloc(bytes);
        }
        _exit(vuListAdd(&list, letters) + vuListAppend(&list, letters) + vuListInsert(&list, letters) +
              vuListOptimize(&list) + (run(&list, "") != " Ac"));
    };
    EXPECT_EXIT(useUpAndAdd(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(run(&list, "rr"), "ac ");
}
