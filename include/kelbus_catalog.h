/*
 * libkelbus-catalog: what the factory gave a parameter: its default, type and rule.
 *
 * Read from /mnt/nand/conf/default.db, which kelconf-init builds from the parameter trees; neither
 * the bus nor a running service is needed. It is a library of its own, because it needs SQLite:
 * programs that only read and set values are to start without it. Link with
 * `pkg-config --libs kelbus-catalog`, beside kelbus where that is used too.
 *
 * Texts are UTF-8, and those of a definition never null. What `range`, `step` and `options` may
 * hold, is in the manual page kelconf-tree(5). The service enforces no rule: kelbus_catalog_check
 * is for those who set values.
 *
 * A catalog is used by one thread at a time; different ones may be used by different threads at the
 * same time. No call prints anything or takes a lock that others wait for.
 */
#ifndef KELBUS_CATALOG_H
#define KELBUS_CATALOG_H

#include "kelbus.h"

/* NOLINTBEGIN(modernize-use-using): this is C */
#ifdef __cplusplus
extern "C" {
#endif
#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

typedef struct kelbus_catalog kelbus_catalog;

typedef struct {
    const char* name;
    const char* default_value;
    const char* type;  /* "int", "string", "password", ... */
    const char* range; /* this and the next four: empty where the tree says nothing */
    const char* step;
    const char* options;
    const char* access; /* from web pages: "r" or "rw" */
    bool is_secret;     /* its values are not for everybody's eyes */
    bool is_state;      /* a state of the device, no setting */
} kelbus_definition;

/* Makes a catalog; default.db is opened when it is first needed. On failure (KELBUS_BAD_ARGUMENT,
   KELBUS_NO_MEMORY) *catalog is null. */
kelbus_error kelbus_catalog_open(kelbus_catalog** catalog);

/* Releases it. Null is ignored. */
void kelbus_catalog_close(kelbus_catalog* catalog);

/* The last failure in words, never a value; empty when the last call succeeded. Valid until the
   next call with this catalog; never null. */
const char* kelbus_catalog_message(const kelbus_catalog* catalog);

/* Finds a parameter, also one that is factory-only and so unknown to the service. The texts of
   *definition are valid until the next call with this catalog. KELBUS_UNKNOWN_NAME: the factory
   knows no such name. KELBUS_NO_CATALOG: default.db is missing, not open to you, or not what its
   sidecar was made of; the next call looks again. */
kelbus_error kelbus_catalog_find(kelbus_catalog* catalog, const char* name,
                                 kelbus_definition* definition);

/* KELBUS_OK when the value is within the parameter's range, step and options. KELBUS_BAD_ARGUMENT
   when it is not: the message says what it must be. Otherwise as kelbus_catalog_find. */
kelbus_error kelbus_catalog_check(kelbus_catalog* catalog, const char* name, const char* value);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif
/* NOLINTEND(modernize-use-using) */

#endif
