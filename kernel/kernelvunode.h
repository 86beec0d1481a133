/*
 * Named nodes and the intrusive lists they hang in.
 *
 * Every kernel record that is kept in a list begins with a node head. A list head is two words inside the record that
 * owns the list. Lists hold no count and own nothing; a node is in at most one list at a time, because the links live in
 * the node. In a well-formed list first->prev and last->next are null and following next from first reaches last.
 */
#ifndef TOLVIN_KERNEL_KERNELVUNODE_H
#define TOLVIN_KERNEL_KERNELVUNODE_H

#include "kernelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Node types in use (vunode.type). */
enum
{
    VU_NODE_ENTITY = 5,
    VU_NODE_MATERIAL = 14,
    VU_NODE_TEXTURE_LIST = 15,
    VU_NODE_TEXTURE = 16,
    VU_NODE_EFFECT = 19
};

/* Head of a named node; the record that embeds it continues directly behind it. */
typedef struct vunode
{
    struct vunode *next; /* following node, null at the tail */
    struct vunode *prev; /* preceding node, null at the head */
    char *name;          /* NUL-terminated copy in the shared arena, owned by the node; or null */
    uint16_t type;       /* VU_NODE_*, 0 when the initialiser of the record sets none */
    uint16_t aux;        /* 0 after vunodeInit; not interpreted here */
} vunode;

VU_LAYOUT(vunode, next, 0, 4);
VU_LAYOUT(vunode, prev, 4, 4);
VU_LAYOUT(vunode, name, 8, 4);
VU_LAYOUT(vunode, type, 12, 2);
VU_LAYOUT(vunode, aux, 14, 2);
VU_SIZE(vunode, 16);

/* Head of only the two links. */
typedef struct vuminnode
{
    struct vuminnode *next;
    struct vuminnode *prev;
} vuminnode;

VU_LAYOUT(vuminnode, next, 0, 4);
VU_LAYOUT(vuminnode, prev, 4, 4);
VU_SIZE(vuminnode, 8);

/* Head of a list; both null when the list is empty. */
typedef struct vulist
{
    vunode *first;
    vunode *last;
} vulist;

VU_LAYOUT(vulist, first, 0, 4);
VU_LAYOUT(vulist, last, 4, 4);
VU_SIZE(vulist, 8);

/* Clear the links. Returns node, which must not be null. */
TOLVIN_API vuminnode *vuminnodeInit(vuminnode *node);

/*
 * Clear links, type and aux, and give the node a private copy of name (may be null) from the shared arena. When the
 * arena is exhausted the node stays nameless, silently. A former name is not released: the node counts as raw memory.
 */
TOLVIN_API void vunodeInit(vunode *node, const char *name);

/* Make the list empty. Nodes that were in it are not touched. */
TOLVIN_API void vulistInit(vulist *list);

/* Append node at the tail. Neither argument may be null; node must be in no list. */
TOLVIN_API void vunodeAppend(vulist *list, vunode *node);

/*
 * Unlink node from list and clear its links; neither the node nor its name is released. Does not search the list: a
 * node in no list only has its links cleared. A null list or node is reported ("List NULL", "Node NULL") and nothing
 * changes. A first node that has a predecessor, or a last node that has a successor and is not the sound head, is
 * reported ("Mismatch Head Node", "Mismatch Tail Node") and still unlinked from its neighbours; the wrong end of the list
 * is then found again by walking from the other end. When both are wrong the list is left empty. Such lists come from
 * appending a node to a second list: that list still has to be told to remove it.
 */
TOLVIN_API void vunodeRemove(vulist *list, vunode *node);

/*
 * vunodeRemove, then release the node's name and set it to null. The record itself stays its owner's. A null node is
 * reported by vunodeRemove; nothing else happens.
 */
TOLVIN_API void vunodeDelete(vulist *list, vunode *node);

/*
 * First node in list order whose name equals name (exact, case-sensitive); null when there is none, without a message.
 * Nameless nodes are skipped. Neither argument may be null.
 */
TOLVIN_API vunode *vunodeListFindNamed(const vulist *list, const char *name);

/* Number of nodes, counted by walking. A null list prints a warning and counts 0. */
TOLVIN_API int vunodesCount(const vulist *list);

#ifdef __cplusplus
}
#endif

#endif
