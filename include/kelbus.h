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
 * time for an answer. Every request ends with KELBUS_NO_SERVICE as soon as the service is known not
 * to run, whatever the limit; a watch waits for the service to come. A signal does not end a call.
 *
 * Threads. A client or a watch is used by one thread at a time; different ones may be used by
 * different threads at the same time without a lock. A child of fork() uses none of its parent's
 * clients and watches, not even to close them; it opens its own after exec.
 *
 * A restart of the service. Clients and watches go on by themselves: the next call reaches the new
 * service, a watch subscribes again. A request that is in flight when the service ends fails with
 * KELBUS_NO_SERVICE; an answer that comes too late never answers a later request. Changes made
 * while a watch is not connected are not seen by it: kelbus_watch_open_with tells of that.
 *
 * What the factory gave a parameter, its default and rule, is in kelbus_catalog.h.
 *
 * No call prints anything, changes signal handlers or ends the process.
 */
#ifndef KELBUS_H
#define KELBUS_H

/* NOLINTBEGIN(modernize-deprecated-headers, modernize-use-using): this is C */
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

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
    KELBUS_BAD_ARGUMENT, /* null, an empty name, a text that XML cannot carry, a request over 16
                            MiB; a value that is not of the type asked for */
    KELBUS_NO_MEMORY,    /* or no descriptor or thread: the process is at a limit of its own */
    KELBUS_NO_CATALOG,   /* kelbus_catalog.h: the factory defaults cannot be read */
    KELBUS_NOT_IN_VIEW,  /* kelbus_view: the value is for the bus alone */
    KELBUS_TOO_SMALL     /* kelbus_view: the buffer */
} kelbus_error;

/* Where a value that is set is kept. */
typedef enum {
    KELBUS_SET,        /* stored by the service soon after the answer */
    KELBUS_SET_DIRECT, /* stored before the answer comes */
    KELBUS_SET_NO_DB   /* in memory alone: gone when the service or the device restarts */
} kelbus_kind;

typedef struct kelbus kelbus;
typedef struct kelbus_request kelbus_request;
typedef struct kelbus_watch kelbus_watch;
typedef struct kelbus_view kelbus_view;

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

/* The version of the library that the program runs with, such as "0.1.0"; KELBUS_VERSION_MAJOR and
   so on are those of the header that it was built with. A static text. */
const char* kelbus_version(void);

/* ---- A client ----------------------------------------------------------------------------------
 */

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

/* Reads the values of `count` names in one request. *values has them in the order of the names.
   With KELBUS_UNKNOWN_NAME *values is there as well: an unknown name has the value null, the others
   have theirs. With any other failure *values is null. Telling unknown names from empty values may
   take further requests within the limit; a parameter is taken as it was when its request was
   answered. */
kelbus_error kelbus_get_many(kelbus* client, const char* const* names, size_t count,
                             kelbus_values** values, int timeout_ms);

/* Reads every parameter, in ascending byte order of the names. *values is null on failure. */
kelbus_error kelbus_get_all(kelbus* client, kelbus_values** values, int timeout_ms);

/* Reads the parameters whose names begin with `prefix`, in ascending byte order of the names; ""
   means all. No name beginning so is no error: *values is then empty. *values is null on failure.
 */
kelbus_error kelbus_list(kelbus* client, const char* prefix, kelbus_values** values,
                         int timeout_ms);

/* Reads the parameters of groups. A parameter belongs to a group when the first eight bytes of both
   names agree; a group name shorter than eight bytes means the parameter of exactly that name. No
   group matching is no error: *values is then empty. *values is null on failure. */
kelbus_error kelbus_get_group(kelbus* client, const char* const* groups, size_t count,
                              kelbus_values** values, int timeout_ms);

/* Sets one value. KELBUS_OK means that the service has the value; a KELBUS_SET_DIRECT one was also
   stored, unless the storage did not take it (it then is stored as soon as it does). After
   KELBUS_TIMEOUT, KELBUS_NO_SERVICE in mid-request or KELBUS_BROKEN_REPLY the value may have been
   set or not: read it. */
kelbus_error kelbus_set(kelbus* client, const char* name, const char* value, kelbus_kind kind,
                        int timeout_ms);

/* Sets `count` values in one request, in their order. With KELBUS_UNKNOWN_NAME or KELBUS_REFUSED
   the values of the known names have been set all the same; the message names the first unknown
   one. */
kelbus_error kelbus_set_many(kelbus* client, const kelbus_parameter* parameters, size_t count,
                             kelbus_kind kind, int timeout_ms);

/* The same for values that are truth values, whole numbers or numbers, whatever the locale is.
   Truth is "1", the opposite "0". A whole number is digits, maybe with "-" in front. A number may
   have a decimal point and an exponent; it is set without an exponent, in the fewest digits that
   read back as the same number. A value that reads otherwise, or does not fit, and setting what is
   no finite number are KELBUS_BAD_ARGUMENT: kelbus_message says what it is; *value is then left
   alone, as on every failure. */
kelbus_error kelbus_get_bool(kelbus* client, const char* name, bool* value, int timeout_ms);
kelbus_error kelbus_get_int64(kelbus* client, const char* name, int64_t* value, int timeout_ms);
kelbus_error kelbus_get_double(kelbus* client, const char* name, double* value, int timeout_ms);
kelbus_error kelbus_set_bool(kelbus* client, const char* name, bool value, kelbus_kind kind,
                             int timeout_ms);
kelbus_error kelbus_set_int64(kelbus* client, const char* name, int64_t value, kelbus_kind kind,
                              int timeout_ms);
kelbus_error kelbus_set_double(kelbus* client, const char* name, double value, kelbus_kind kind,
                               int timeout_ms);

/* Releases an answer. Null is ignored. */
void kelbus_values_free(kelbus_values* values);

/* Releases a value of kelbus_get. Null is ignored. */
void kelbus_free(void* value);

/* ---- Requests beside an event loop --------------------------------------------------------------
 */

/* These begin what kelbus_get_many, kelbus_list, kelbus_get_group and kelbus_set_many do and return
   at once; names and parameters are copied. Any number may be under way for one client. Each is
   ended by kelbus_request_finish or kelbus_request_cancel, before its client is closed. *request is
   null on failure. */
kelbus_error kelbus_start_get(kelbus* client, const char* const* names, size_t count,
                              kelbus_request** request);
kelbus_error kelbus_start_list(kelbus* client, const char* prefix, kelbus_request** request);
kelbus_error kelbus_start_group(kelbus* client, const char* const* groups, size_t count,
                                kelbus_request** request);
kelbus_error kelbus_start_set(kelbus* client, const kelbus_parameter* parameters, size_t count,
                              kelbus_kind kind, kelbus_request** request);

/* A descriptor for poll(): readable when kelbus_request_finish may get on. It may be readable
   without that. The same until the request ends; only poll it. -1: no descriptor is left. */
int kelbus_request_fd(kelbus_request* request);

/* Takes the answer. KELBUS_TIMEOUT: it is not whole within the limit, 0 for a look; the request
   goes on. With everything else the request has ended and is released, and the result and *values
   are those of the call that waits. `values` may be null; a set gives none. */
kelbus_error kelbus_request_finish(kelbus_request* request, kelbus_values** values, int timeout_ms);

/* Gives a request up and releases it. A set may have been made or not. Null is ignored. */
void kelbus_request_cancel(kelbus_request* request);

/* ---- A watch -----------------------------------------------------------------------------------
 */

/* Subscribes to the changes of all parameters whose names begin with one of `count` prefixes (0:
   all parameters). The prefixes are copied. Needs no running service: the watch connects when there
   is one. When the service runs, the call waits up to a second for the connection, so that a change
   that is set after the call is seen. On failure *watch is null. KELBUS_REFUSED: the service runs,
   and its socket is not open to you. */
kelbus_error kelbus_watch_open(kelbus_watch** watch, const char* const* prefixes, size_t count);

/* What a watch tells beside changes: 0 or the sum of these. */
enum {
    /* That it was not connected for a while and is again, so that changes may have been missed: a
       kelbus_change whose name is null. What waited then is dropped with them: read the values. */
    KELBUS_WATCH_GAPS = 1,
    /* First the values of all that is watched, each as a kelbus_change whose prev_value is null,
       then the changes; nothing is missed in between. After each gap, which is told as well, the
       values come again. A change that is made while the values are read may come although they
       have it. */
    KELBUS_WATCH_VALUES = 2
};

/* kelbus_watch_open with such options. The watch takes a few descriptors more. */
kelbus_error kelbus_watch_open_with(kelbus_watch** watch, const char* const* prefixes, size_t count,
                                    unsigned options);

/* A descriptor for poll(): readable when there may be changes. It may be readable without one, and
   it reports new arrivals only: after opening the watch and each time that it is readable, call
   kelbus_watch_next with the time limit 0 until it returns KELBUS_TIMEOUT. The descriptor is the
   watch's: only poll it. */
int kelbus_watch_fd(const kelbus_watch* watch);

/* The next change, in the order of arrival. Changes of the kind KELBUS_SET that are made fast one
   after the other may arrive in another order, even those of one parameter (docs/bus.md): the value
   that counts is then the one that kelbus_get reads. The texts of *change are valid until the next
   call with this watch. KELBUS_TIMEOUT: none came within the limit, be it that nobody serves the
   bus: a watch waits for the service. KELBUS_REFUSED: a service came after the watch was opened,
   the first one, and its socket is not open to you. KELBUS_BROKEN_REPLY: something that is no event
   came and was dropped; go on. A watch that is not read loses changes when some thousands wait, and
   is not told. */
kelbus_error kelbus_watch_next(kelbus_watch* watch, kelbus_change* change, int timeout_ms);

/* Ends the subscription and releases the watch. Null is ignored. */
void kelbus_watch_close(kelbus_watch* watch);

/* ---- The view: values without a request ---------------------------------------------------------
 */

/* The service keeps its values in a file as well, which the view maps. A read takes some hundred
   nanoseconds and no system call, but for one in about 20 ms; it can neither hold the service up
   nor be held up by it, but for the moment of a change.

   A value is whole, as one SET left it; values that one SET set together are there together. A read
   that begins after a SET was answered, or after its event came, sees it; reads of one view never
   go back in time. While a service that was killed is not known to be gone, for up to 20 ms, a read
   may give its last values; a service that ended in order is known at once. A new start is found by
   itself, within 20 ms.

   Passwords (names with "password" or "passwd") and values over 64 KiB are not in it: ask the bus.
   It also has no reader where the service could not make the file (a full /tmp). So
   KELBUS_NOT_IN_VIEW and KELBUS_NO_SERVICE are reasons to use a client.

   Threads: any number may use one view at the same time. A child of fork() may go on with its
   parent's. The file must not be made shorter by the service's user while it is mapped: the
   kernel's answer to that is SIGBUS. */

/* Makes a view. Needs no running service. On failure (KELBUS_BAD_ARGUMENT, KELBUS_NO_MEMORY) *view
   is null. */
kelbus_error kelbus_view_open(kelbus_view** view);

/* Releases the view; no other thread may be using it. Null is ignored. */
void kelbus_view_close(kelbus_view* view);

/* Copies one value and a zero byte into the buffer of `size` bytes; *length, which may be null, is
   the value's length without that byte. KELBUS_TOO_SMALL: *length + 1 bytes are needed. Other
   errors of this and the calls below: KELBUS_NO_SERVICE, KELBUS_REFUSED when the file is not open
   to you, KELBUS_TIMEOUT when the service has stood still in the middle of a change for 100 ms,
   KELBUS_BROKEN_REPLY for a file of another version. The buffer's content is then undefined. */
kelbus_error kelbus_view_get(kelbus_view* view, const char* name, char* buffer, size_t size,
                             size_t* length);

/* Reads the values of `count` names, all as they are at one moment; *values is as of
   kelbus_get_many, also with KELBUS_UNKNOWN_NAME. KELBUS_NOT_IN_VIEW when one of them is not;
   *values is then null. */
kelbus_error kelbus_view_get_many(kelbus_view* view, const char* const* names, size_t count,
                                  kelbus_values** values);

/* Calls `visit` for each parameter whose name begins with `prefix`, in ascending byte order of the
   names, until it returns false. `value` is null where it is not in the view; `name` and `value`
   are valid until `visit` returns. Each value is as it is when its turn comes: they are of one
   moment when kelbus_view_changes says the same before and after. `visit` may use the view. */
kelbus_error kelbus_view_visit(kelbus_view* view, const char* prefix,
                               bool (*visit)(void* context, const char* name, const char* value,
                                             size_t length),
                               void* context);

/* A number that is another one after each change of any value and after each start of the service,
   within nanoseconds. 0: no service, or no view. */
uint64_t kelbus_view_changes(kelbus_view* view);

/* NOLINTEND(modernize-deprecated-headers, modernize-use-using) */
#ifdef __GNUC__
#pragma GCC visibility pop
#endif
#ifdef __cplusplus
}
#endif

#endif
