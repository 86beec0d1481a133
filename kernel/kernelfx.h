/*
 * Effects: visual behaviour that lives in plug-ins, with its settings and a fixed number of instances.
 *
 * The application makes the records (pfMalloc, effectInit), fills in the settings and appends them to the root node's
 * effects. effectSetupAll then loads every plug-in and lets it prepare itself and its instances; after that the library
 * only forwards: effectUpdate each frame, the other functions as they are called. What the words mean that are handed
 * through, in and out, is between application and plug-in; <tolvin/plugin.h> has conventions for them. Words are as wide as
 * pointers.
 *
 *   effectInit -> settings, vunodeAppend -> effectSetupAll -> effectUpdate ... -> effectUnloadAll -> effectFreeAll
 *
 * Records, all strings they point to, and instances are blocks of the shared arena (pfMalloc), each in one record only.
 * effectFreeAll releases them all, whoever made them: who releases one before has to leave null in its place.
 *
 * Plug-ins run in the thread that calls. A null fx is reported ("No fx", "Debug") where nothing else is said, and nothing
 * happens; root and other arguments must not be null.
 */
#ifndef TOLVIN_KERNEL_KERNELFX_H
#define TOLVIN_KERNEL_KERNELFX_H

#include "kernelapi.h"
#include "kernelgeneric.h"
#include "kernelvunode.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

struct vuEffect;

/* Of one effect that goes on at one place. All of it is the plug-in's. */
typedef struct vuEffectInst
{
    uint32_t words[13];
} vuEffectInst;

VU_SIZE_ANY(vuEffectInst, 52);

/* Entry points of plug-ins, with the conventions of C. */
typedef void (*vuFxCall)(vuRootNode *root, struct vuEffect *fx);
typedef uintptr_t (*vuFxWordCall)(vuRootNode *root, struct vuEffect *fx, uintptr_t word);
typedef uintptr_t (*vuFxDataCall)(vuRootNode *root, struct vuEffect *fx, uintptr_t word0, uintptr_t word1);
typedef uintptr_t (*vuFxInstDataCall)(vuRootNode *root, struct vuEffect *fx, uintptr_t word0, uintptr_t word1,
                                      uintptr_t word2);
typedef void (*vuFxInstCall)(vuRootNode *root, struct vuEffect *fx, vuEffectInst *inst);
typedef uintptr_t (*vuFxStopCall)(vuRootNode *root, struct vuEffect *fx, vuEffectInst *inst);
typedef void (*vuFxTriggerInstCall)(vuRootNode *root, struct vuEffect *fx, uintptr_t word0, uintptr_t word1);

/* An effect. Separately built plug-ins read and write it by position. Entry points that a plug-in lacks are null. */
typedef struct vuEffect
{
    vunode node;        /* type VU_NODE_EFFECT */
    uint32_t tagbase;   /* chosen by the plug-in in fxInit; 0 */
    uint32_t maskDraw;  /* bits of the channels that draw it; 0xffffffff */
    uint32_t reserved0; /* untouched */
    float colour[4];    /* red, green, blue, alpha; 1 each */
    double duration;    /* seconds; 1 */
    double fade;        /* seconds of it, at its end; 0 */
    char *pluginFile;   /* for the dynamic loader; without one the effect is never set up */
    char *parameter;    /* text for the plug-in, or null */
    int32_t num;        /* instances wanted; 16 */
    int32_t numInst;    /* instances there are */
    vuEffectInst *inst; /* as many */
    uint32_t reserved1; /* 0 */
    void *handle;       /* of the loader; null while not loaded */
    vuFxCall fxInit;
    vuFxDataCall fxGetData;
    vuFxDataCall fxSetData;
    vuFxWordCall fxObtain;
    vuFxWordCall fxTrigger;
    vuFxCall fxUpdate;
    vuFxCall fxFree;
    vuFxInstCall fxInitInst;
    vuFxInstDataCall fxGetInstData;
    vuFxInstDataCall fxSetInstData;
    vuFxTriggerInstCall fxTriggerInst;
    vuFxStopCall fxStopInst;
    vuFxInstCall fxFreeInst;
    uint32_t reserved2;      /* 0 */
    char *entityNode;        /* name of an entity for the plug-in, or null */
    float position[3];       /* 0 */
    float direction[3];      /* 0 */
    char *linkFxName;        /* name of another effect, or null */
    struct vuEffect *linkFx; /* found by set-up; never the effect itself */
} vuEffect;

VU_LAYOUT(vuEffect, node, 0, 16);
VU_LAYOUT(vuEffect, tagbase, 16, 4);
VU_LAYOUT(vuEffect, maskDraw, 20, 4);
VU_LAYOUT(vuEffect, reserved0, 24, 4);
VU_LAYOUT(vuEffect, colour, 28, 16);
VU_LAYOUT(vuEffect, duration, 44, 8);
VU_LAYOUT(vuEffect, fade, 52, 8);
VU_LAYOUT(vuEffect, pluginFile, 60, 4);
VU_LAYOUT(vuEffect, parameter, 64, 4);
VU_LAYOUT(vuEffect, num, 68, 4);
VU_LAYOUT(vuEffect, numInst, 72, 4);
VU_LAYOUT(vuEffect, inst, 76, 4);
VU_LAYOUT(vuEffect, reserved1, 80, 4);
VU_LAYOUT(vuEffect, handle, 84, 4);
VU_LAYOUT(vuEffect, fxInit, 88, 4);
VU_LAYOUT(vuEffect, fxGetData, 92, 4);
VU_LAYOUT(vuEffect, fxSetData, 96, 4);
VU_LAYOUT(vuEffect, fxObtain, 100, 4);
VU_LAYOUT(vuEffect, fxTrigger, 104, 4);
VU_LAYOUT(vuEffect, fxUpdate, 108, 4);
VU_LAYOUT(vuEffect, fxFree, 112, 4);
VU_LAYOUT(vuEffect, fxInitInst, 116, 4);
VU_LAYOUT(vuEffect, fxGetInstData, 120, 4);
VU_LAYOUT(vuEffect, fxSetInstData, 124, 4);
VU_LAYOUT(vuEffect, fxTriggerInst, 128, 4);
VU_LAYOUT(vuEffect, fxStopInst, 132, 4);
VU_LAYOUT(vuEffect, fxFreeInst, 136, 4);
VU_LAYOUT(vuEffect, reserved2, 140, 4);
VU_LAYOUT(vuEffect, entityNode, 144, 4);
VU_LAYOUT(vuEffect, position, 148, 12);
VU_LAYOUT(vuEffect, direction, 160, 12);
VU_LAYOUT(vuEffect, linkFxName, 172, 4);
VU_LAYOUT(vuEffect, linkFx, 176, 4);
VU_SIZE(vuEffect, 180);

/* Initialise an effect, raw memory so far: name copied (may be null), and the defaults of the record. */
TOLVIN_API void effectInit(vuEffect *fx, const char *name);

/* Set the words of an instance to 0. */
TOLVIN_API void effectInitInstance(vuEffectInst *inst);

/*
 * Load and initialise one effect. Returns 1 when its plug-in was opened; 0 when it has no pluginFile, silently, when the
 * plug-in cannot be opened (reported, "Warning"; then there are no entry points, no instances and no linkFx), and for a null fx ("No
 * effect", "Debug").
 *
 * Entry points are looked up, and those missing reported ("Warning"); num instances are allocated; fxInit is called and the
 * tagbase that it chose is printed ("Info"); each instance is cleared and, with its number printed to standard error as
 * "[%d] ", handed to fxInitInst; and linkFxName is looked up among all effects, also those behind this one, and what is not
 * found, or is the effect itself, reported ("Warning"). A plug-in without fxInit gets its instances as they come from the
 * arena, and no linkFx.
 *
 * When there is no room for the instances, or num is negative, there are none (numInst 0), which is reported ("Warning"); the
 * rest is done all the same. A second set-up opens the plug-in once more and allocates instances anew, or has none when it cannot be
 * opened; it leaves handle and instances of the first to the caller, who calls effectUnload before to have nothing left over.
 */
TOLVIN_API int effectSetup(vuRootNode *root, vuEffect *fx);

/* Set up all effects in list order. Returns how many plug-ins were opened. */
TOLVIN_API int effectSetupAll(vuRootNode *root);

/* Call fxUpdate of each effect that has it, in list order. */
TOLVIN_API void effectUpdate(vuRootNode *root);

/* First effect of exactly that name; null when there is none, and for a null name. */
TOLVIN_API vuEffect *effectSearchNamed(vuRootNode *root, const char *name);

/* Call the entry point of the same name. Returns what that does, 0 without it. effectTrigger prints "FX trigger" ("Info"). */
TOLVIN_API uintptr_t effectObtain(vuRootNode *root, vuEffect *fx, uintptr_t word);
TOLVIN_API uintptr_t effectTrigger(vuRootNode *root, vuEffect *fx, uintptr_t word);
TOLVIN_API void effectTriggerInst(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1);
TOLVIN_API uintptr_t effectGetData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1);
TOLVIN_API uintptr_t effectSetData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1);
TOLVIN_API uintptr_t effectGetInstData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1,
                                       uintptr_t word2);
TOLVIN_API uintptr_t effectSetInstData(vuRootNode *root, vuEffect *fx, uintptr_t word0, uintptr_t word1,
                                       uintptr_t word2);

/* Likewise; a null instance ("NULL Instance", "Debug") and a plug-in without the entry point ("Warning") are reported and give 0. */
TOLVIN_API uintptr_t effectStopInst(vuRootNode *root, vuEffect *fx, vuEffectInst *inst);

/*
 * Take all effects off the list; close their plug-ins, and release records, strings and instances. Plug-ins are not told:
 * call effectUnloadAll before for those that have something of their own.
 */
TOLVIN_API void effectFreeAll(vuRootNode *root);

/*
 * Write all effects in the syntax of description files: name, and, if there is a pluginFile, that and the settings. Null
 * strings are written as empty ones where there is a line for them anyway. Numbers have the decimal point of the locale;
 * readers want that of "C".
 */
TOLVIN_API void effectPrintList(vuRootNode *root, FILE *stream);

/*
 * Additions of this library, the other way round as effectSetup: let the plug-in release what it has, with fxFreeInst for each
 * instance (if it has fxInit) and then fxFree, close it, release the instances, and leave handle, entry points, inst and linkFx null, and numInst
 * 0. Settings, name and tagbase stay, so that the effect can be set up again. effectUnloadAll closes no plug-in before all have
 * released what they have, because effects are linked to each other. Effects that are not loaded are left alone, and so is a null fx. Who
 * releases the record of one effect alone has to clear linkFx of those that are linked to it.
 */
TOLVIN_API void effectUnload(vuRootNode *root, vuEffect *fx);
TOLVIN_API void effectUnloadAll(vuRootNode *root);

/*
 * Another addition: whether set-up could open that file. Opens and closes it. A name without a slash is searched by the loader in
 * folders of its own, where nobody looks whether the end of the file is missing. Returns 1; 0 with the reason, the loader's own or
 * that its end is missing, in at most that many bytes, 0 at the end included (none are written to null, or when bytes is 0).
 */
TOLVIN_API int effectCanOpen(const char *pluginFile, char *reason, size_t bytes);

#ifdef __cplusplus
}
#endif

#endif
