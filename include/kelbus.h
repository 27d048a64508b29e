/*
 * libkelbus: the client side of the configuration bus kelbus.
 *
 * A program reads, sets and watches the parameters that the service kelconfd keeps, without
 * writing XML or ZeroMQ code. Usable from C11 and from C++.
 *
 * Texts are UTF-8, terminated by a zero byte. A name or value may hold every character that XML
 * 1.0 can carry: all of Unicode but the control characters below U+0020 other than tab, line feed
 * and carriage return, and but U+FFFE and U+FFFF. A text that holds others is refused before
 * anything is sent (KELBUS_BAD_ARGUMENT).
 *
 * Time limits are in milliseconds and bound the whole call; a negative one is no limit, 0 leaves no
 * time for an answer. Every request ends with KELBUS_NO_SERVICE as soon as the service is known not to
 * run, whatever the limit; a watch waits for the service to come. A signal does not end a call.
 *
 * Threads. A client or a watch is used by one thread at a time; different ones may be used by
 * different threads at the same time without a lock. A child of fork() uses none of its parent's
 * clients and watches, not even to close them; it opens its own after exec.
 *
 * A restart of the service. Clients and watches go on by themselves: the next call reaches the new
 * service, a watch subscribes again. A request that is in flight when the service ends fails with
 * KELBUS_NO_SERVICE; an answer that comes too late never answers a later request. Changes made
 * while a watch is not connected are not seen by it: read the values again when that matters.
 *
 * No call prints anything, changes signal handlers or ends the process.
 */
#ifndef KELBUS_H
#define KELBUS_H

/* NOLINTBEGIN(modernize-deprecated-headers, modernize-use-using): this is C */
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

#define KELBUS_VERSION_MAJOR 0
#define KELBUS_VERSION_MINOR 1
#define KELBUS_VERSION_PATCH 0

typedef enum {
    KELBUS_OK = 0,
    KELBUS_NO_SERVICE,   /* nobody serves the bus, or the service ended before it answered */
    KELBUS_TIMEOUT,      /* the service runs and did not answer within the limit */
    KELBUS_UNKNOWN_NAME, /* the service has no parameter of a name that was given */
    KELBUS_REFUSED,      /* the service answered with failure, or its socket is not open to you */
    KELBUS_BROKEN_REPLY, /* what came is no answer to the request: cut, no XML, of another kind */
    KELBUS_BAD_ARGUMENT, /* null, an empty name, a text that XML cannot carry, a request over 16 MiB */
    KELBUS_NO_MEMORY     /* or no descriptor: the process is at a limit of its own */
} kelbus_error;

/* Where a value that is set is kept. */
typedef enum {
    KELBUS_SET,        /* stored by the service soon after the answer */
    KELBUS_SET_DIRECT, /* stored before the answer comes */
    KELBUS_SET_NO_DB   /* in memory alone: gone when the service or the device restarts */
} kelbus_kind;

typedef struct kelbus kelbus;
typedef struct kelbus_watch kelbus_watch;

typedef struct {
    const char* name;
    const char* value; /* null in an answer: the name is unknown */
} kelbus_parameter;

/* An answer with several parameters. Owned by the caller: kelbus_values_free. */
typedef struct {
    size_t count;
    const kelbus_parameter* items;
} kelbus_values;

typedef struct {
    const char* name;
    const char* value;
    const char* prev_value; /* what the change replaced */
} kelbus_change;

/* The kind of an error in words. A static text; never null. */
const char* kelbus_strerror(kelbus_error error);

/* ---- A client ---------------------------------------------------------------------------------- */

/* Makes a client. Needs no running service: connections are made when they are needed. On failure
   (KELBUS_BAD_ARGUMENT, KELBUS_NO_MEMORY) *client is null. */
kelbus_error kelbus_open(kelbus** client);

/* Closes the connections and releases the client. Null is ignored. */
void kelbus_close(kelbus* client);

/* The last failure of this client in words, with the name that it is about; never a value. An empty
   text when the last call succeeded. Valid until the next call with this client; never null. */
const char* kelbus_message(const kelbus* client);

/* Reads one value. *value is the caller's, to be released with kelbus_free; null on failure. */
kelbus_error kelbus_get(kelbus* client, const char* name, char** value, int timeout_ms);

/* Reads the values of `count` names in one request. *values has them in the order of the names. With
   KELBUS_UNKNOWN_NAME *values is there as well: an unknown name has the value null, the others have
   theirs. With any other failure *values is null. Telling unknown names from empty values may take
   further requests within the limit; a parameter is taken as it was when its request was answered. */
kelbus_error kelbus_get_many(kelbus* client, const char* const* names, size_t count,
                             kelbus_values** values, int timeout_ms);

/* Reads every parameter, in ascending byte order of the names. *values is null on failure. */
kelbus_error kelbus_get_all(kelbus* client, kelbus_values** values, int timeout_ms);

/* Reads the parameters of groups. A parameter belongs to a group when the first eight bytes of both
   names agree; a group name shorter than eight bytes means the parameter of exactly that name. No
   group matching is no error: *values is then empty. *values is null on failure. */
kelbus_error kelbus_get_group(kelbus* client, const char* const* groups, size_t count,
                              kelbus_values** values, int timeout_ms);

/* Sets one value. KELBUS_OK means that the service has the value; a KELBUS_SET_DIRECT one was also
   stored, unless the storage did not take it (it then is stored as soon as it does). After
   KELBUS_TIMEOUT, KELBUS_NO_SERVICE in mid-request or KELBUS_BROKEN_REPLY the value may have been set
   or not: read it. */
kelbus_error kelbus_set(kelbus* client, const char* name, const char* value, kelbus_kind kind,
                        int timeout_ms);

/* Sets `count` values in one request, in their order. With KELBUS_UNKNOWN_NAME or KELBUS_REFUSED the
   values of the known names have been set all the same; the message names the first unknown one. */
kelbus_error kelbus_set_many(kelbus* client, const kelbus_parameter* parameters, size_t count,
                             kelbus_kind kind, int timeout_ms);

/* Releases an answer. Null is ignored. */
void kelbus_values_free(kelbus_values* values);

/* Releases a value of kelbus_get. Null is ignored. */
void kelbus_free(void* value);

/* ---- A watch ----------------------------------------------------------------------------------- */

/* Subscribes to the changes of all parameters whose names begin with one of `count` prefixes (0: all
   parameters). The prefixes are copied. Needs no running service: the watch connects when there is
   one. When the service runs, the call waits up to a second for the connection, so that a change that
   is set after the call is seen. On failure *watch is null. KELBUS_REFUSED: the service runs, and its
   socket is not open to you. */
kelbus_error kelbus_watch_open(kelbus_watch** watch, const char* const* prefixes, size_t count);

/* A descriptor for poll(): readable when there may be changes. It may be readable without one, and
   it reports new arrivals only: after opening the watch and each time that it is readable, call
   kelbus_watch_next with the time limit 0 until it returns KELBUS_TIMEOUT. The descriptor is the
   watch's: only poll it. */
int kelbus_watch_fd(const kelbus_watch* watch);

/* The next change, in the order of arrival. The texts of *change are valid until the next call with
   this watch. KELBUS_TIMEOUT: none came within the limit, be it that nobody serves the bus: a watch
   waits for the service. KELBUS_REFUSED: a service came after the watch was opened, the first one, and
   its socket is not open to you. KELBUS_BROKEN_REPLY: something that is no event came and was
   dropped; go on. A watch that is not read loses changes when some thousands
   wait, and is not told. */
kelbus_error kelbus_watch_next(kelbus_watch* watch, kelbus_change* change, int timeout_ms);

/* Ends the subscription and releases the watch. Null is ignored. */
void kelbus_watch_close(kelbus_watch* watch);

/* NOLINTEND(modernize-deprecated-headers, modernize-use-using) */
#ifdef __GNUC__
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif

#endif
