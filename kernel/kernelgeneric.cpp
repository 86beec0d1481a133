#include "kernelgeneric.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "kernelutil.h"

namespace
{
template<class Word, size_t Count>
void clear(Word (&words)[Count])
{
    std::fill(std::begin(words), std::end(words), 0);
}

template<size_t Count>
void clear(vulist (&lists)[Count])
{
    std::for_each(std::begin(lists), std::end(lists), [](vulist &list) { vulistInit(&list); });
}
} // namespace

void initOptions(vuOptions *options)
{
    constexpr int32_t kOption[] = {1, 1, 0, 3, 0, 0, 0, 0, 0, 1};
    std::copy(std::begin(kOption), std::end(kOption), options->option);
    options->factor = 1.0f;
    options->frameRate = 25.0f;
    options->frameTime = 0.04f;
    options->option10 = 2;
    clear(options->option11);
}

void initRootNode(vuRootNode *root)
{
    constexpr uint16_t kVersion[] = {1, 2, 2, 4261};
    initOptions(&root->options);
    std::copy(std::begin(kVersion), std::end(kVersion), root->version);
    root->word168 = 0;
    root->word174 = 0;
    vulistInit(&root->scenes);
    vulistInit(&root->lists0);
    root->word16C = 0;
    root->ownEntity = nullptr;
    clear(root->lists1);
    for (vulist *list : {&root->textureLists, &root->materialLists, &root->effects, &root->lists2, &root->lists3})
    {
        vulistInit(list);
    }
    clear(root->word178);
    root->options.option[7] = 0;
    root->options.option[8] = 0;
    vuMessage("Debug", "kernelgeneric", 203, "NO_FORK_X");
    root->word180 = 2;
    clear(root->word198);
    strcpy(root->text1B0, "fid");
    strcpy(root->suffix, ".pfb");
    root->receiveFlags = 0;
    clear(root->word2B4);
    clear(root->block2C8);
    std::fill(std::begin(root->factors), std::end(root->factors), 1.0f);
    vutimeInit(&root->time);
    root->word6C = 0;
    root->word2F8 = 0;
    clear(root->lists4);
    clear(root->word31C);
    for (vuList &list : root->glists)
    {
        vuListInit(&list);
    }
    clear(root->word370);
}
