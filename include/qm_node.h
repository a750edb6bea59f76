/*
 * Result trees of data-model reads and their JSON and XML printers.
 *
 * A read turns a path of the path language (qm_generic.h) into a tree of
 * named nodes. The root's text is empty; the payload is the root's child
 * chain. A property "Obj_A_B" read as "Obj" becomes root -> "A" -> "B" ->
 * leaf holding the value; "B" and the leaf carry the property's schema type
 * code, so that the printer can mask secrets. A wildcard or instance-set
 * read gives root -> "List" (leaf: the instance numbers built, joined by
 * ",") followed by one node per instance keyed by its decimal number.
 *
 * Nodes and their texts are malloc'd; a tree belongs to whoever built it
 * and is released with free_all_node. Printers write to the response of
 * the current request (values through ssiprintf, escaped for the current
 * SSI output mode). Not thread-safe, like the rest of the process.
 *
 * No C++ exception leaves these calls: an internal failure (memory
 * exhaustion included) is logged with the function's name and gives null,
 * or for the printers, output that stops where the failure happened.
 */
#ifndef QM_NODE_H
#define QM_NODE_H

#include <stdint.h>

#include "qm_config.h"
#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qm_node {
    char *text;            /* key of an inner node, or the value of a leaf (owned) */
    int8_t type;           /* schema type code of the property, 0 if not a property */
    struct qm_node *child; /* first child */
    struct qm_node *next;  /* next sibling */
} qm_node;

/* New zero-filled node holding a copy of text. On allocation failure logs
 * it, sets the shared error code to 10 and returns null. */
QM_EXPORT qm_node *create_node(const char *text);

/* Frees the child sub-tree, the next chain, the text and the node; null is
 * accepted. */
QM_EXPORT void free_all_node(qm_node *node);

/* Tree of one object. records may be null: they are then read (and
 * released) here. suffix (null or "" for none) keeps only the properties
 * at or below that relative name. Null on failure. */
QM_EXPORT qm_node *create_tree_simple(const char *name, const char *suffix, QM_DAT_record *records);

/* Tree of any path of the path language. Null on failure (logged). */
QM_EXPORT qm_node *create_tree_full(const char *path, const char *suffix, QM_DAT_record *records);

/* Prints the chain that starts at node as JSON-like text without line
 * breaks; shadow 1 masks the values of secret properties (types 14, 28). */
QM_EXPORT void dump_JSON_tree(const qm_node *node, int shadow);

/* Prints the chain as nested elements, unescaped, without declaration. */
QM_EXPORT void dump_XML_tree(const qm_node *node);

#ifdef __cplusplus
}
#endif

#endif
