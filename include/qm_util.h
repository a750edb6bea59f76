/*
 * Shared utilities for CGIs, device functions and plugins: validators for
 * form input, formatters for addresses, in-place string helpers, field
 * extractors for command output and status files, the data model's list
 * text, and readers of small state files.
 *
 * Nothing here allocates (except new_list_index, which releases the list
 * text the configuration library hands out). Output goes into the caller's
 * buffers, always terminated, cut at the stated size.
 *
 * Text positions follow the strchr convention: they are taken as
 * const char * and returned as char * pointing into the same text, so that
 * callers holding either kind of pointer can chain the calls.
 */
#ifndef QM_UTIL_H
#define QM_UTIL_H

#include <stddef.h>
#include <stdint.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_LINE_SIZE = 4096,   /* the shared scratch buffer Line; one line <= 4095 chars */
    QM_IPSTR_SIZE = 16,    /* ipstr output: "255.255.255.255" and terminator */
    QM_MACSTR_SIZE = 18,   /* macstr output: "AA:BB:CC:DD:EE:FF" and terminator */
    QM_MAC_LEN = 6,        /* bytes of a MAC address (macword, macstr) */
    QM_LIST_ITEM_SEP = 11, /* list text: items separated by a vertical tab */
    QM_LIST_FIELD_SEP = 9  /* list text: components of an item by a tab */
};

/* Results of get_filevar and get_logvar. */
enum {
    QM_VAR_OK = 0,
    QM_VAR_TRUNCATED = 10, /* value longer than the caller's buffer */
    QM_VAR_MISSING = 20    /* file missing, or key absent */
};

/* Process-wide scratch line shared by the file readers below and other
 * utilities. Any call documented as using it clobbers its contents. */
QM_EXPORT extern char Line[QM_LINE_SIZE];

/* ---- Validators: 1 when valid, 0 otherwise. A null text is invalid.
 * Bytes are compared as signed characters, so bytes from 128 up are never
 * accepted by any of them. */

/* "A"-"Z", "a"-"z", "0"-"9", "-", "_". */
QM_EXPORT int check_alphanum(char c);
/* Every character passes check_alphanum; the empty text is valid. */
QM_EXPORT int check_name(const char *text);
/* check_alphanum characters, "." and ",". */
QM_EXPORT int check_internetname(const char *text);
/* Every byte printable, 33-126 (no blank). */
QM_EXPORT int check_ascii(const char *text);
/* Every byte 32-126. */
QM_EXPORT int check_ascii_with_spaces(const char *text);
/* "a.b.c.d:port" with octets 0-255 and port 0-65535, or else "a.b.c.d".
 * Numbers are read as scanf's %d reads them; whatever follows the last
 * number that could be read is not examined ("1.2.3.4:abc" is valid). */
QM_EXPORT int check_ipaddr_port(const char *text);

/* Parses "a.b.c.d", octets 0-255, into a host-order word (a is the high
 * byte). *out is written only when the text is valid. */
QM_EXPORT int ipword(const char *text, uint32_t *out);
/* Prefix length of a netmask (host order): 1-32, or 0 for a mask whose one
 * bits are not contiguous from the top, and for the mask 0. */
QM_EXPORT int ipmask(uint32_t mask);
/* 1 when address (host order) is a usable unicast host in the network of
 * mask: network part and host part both non-zero, not the broadcast, and
 * below 224.0.0.0. */
QM_EXPORT int iphost(uint32_t address, uint32_t mask);
/* Parses "%x:%x:%x:%x:%x:%x", each 0-255, into out[QM_MAC_LEN]. When all
 * six are valid the bytes are stored; the result is then 1 for a unicast
 * address and 0 for a group address (low bit of the first byte set). */
QM_EXPORT int macword(const char *text, unsigned char *out);

/* Write "a.b.c.d" of a host-order address; buffer holds QM_IPSTR_SIZE. */
QM_EXPORT char *ipstr(char *buffer, uint32_t address);
/* Write "AA:BB:CC:DD:EE:FF" (upper case) of bytes[QM_MAC_LEN]; buffer holds
 * QM_MACSTR_SIZE. */
QM_EXPORT char *macstr(char *buffer, const unsigned char *bytes);

/* ---- In-place string helpers; each returns text. */

/* Replaces every byte equal to from by to. */
QM_EXPORT char *str_replace(char *text, char from, char to);
/* Change the ASCII letters only; other bytes are left as they are. */
QM_EXPORT char *str_lowercase(char *text);
QM_EXPORT char *str_uppercase(char *text);
/* Removes leading and trailing blanks and tabs. */
QM_EXPORT char *str_trim(char *text);

/* ---- Field extractors. Each reads from pos and returns the position just
 * after what it consumed. What they consume depends only on the text; the
 * output (size bytes, size > 0) receives at most size - 1 characters of it
 * and is always terminated, so a long field is cut but still skipped. */

/* Decimal digits; *out = their value, 0 when there are none. No sign and no
 * overflow check: a value beyond int wraps. */
QM_EXPORT char *text_extract_int(const char *pos, int *out);
/* Hex digits of either case; otherwise as text_extract_int. */
QM_EXPORT char *text_extract_hex(const char *pos, int *out);
/* Digits and ".". */
QM_EXPORT char *text_extract_ip(const char *pos, char *out, size_t size);
/* Digits, "." and "/". */
QM_EXPORT char *text_extract_ipmask(const char *pos, char *out, size_t size);
/* Digits, "A"-"F", "a"-"f" and ":". */
QM_EXPORT char *text_extract_mac(const char *pos, char *out, size_t size);
/* Up to a blank, a tab or the end. */
QM_EXPORT char *text_extract_string(const char *pos, char *out, size_t size);
/* Up to the mark byte, a blank, a tab or the end; none of them consumed. */
QM_EXPORT char *text_extract_stringuntilmark(const char *pos, char *out, size_t size, char mark);
/* Up to words words separated by blanks, copied joined by one blank (so
 * "Jan  5 12:00" gives "Jan 5 12:00"). A tab or the end stops it early;
 * blanks before pos's first word are skipped, blanks after the last word
 * taken are not consumed. */
QM_EXPORT char *text_extract_date(const char *pos, char *out, size_t size, int words);
/* Skips up to a blank, a tab or the end. */
QM_EXPORT char *text_skip_endoffield(const char *pos);
/* Skips all blanks, then at most one tab. */
QM_EXPORT char *text_skip_separator(const char *pos);
/* Skips up to the mark or the end; the mark is not consumed. */
QM_EXPORT char *text_skip_untilmark(const char *pos, char mark);

/* ---- List text of the data model (see QM_LIST_ITEM_SEP). */

/* text itself when it is not empty, else NULL (also for NULL). */
QM_EXPORT char *get_first_listitem(const char *text);
/* The item after item, or NULL when item is NULL or nothing follows. */
QM_EXPORT char *get_next_listitem(const char *item);
/* Copies up to max characters of the component at pos (ending at a tab, a
 * vertical tab or the end) into out, which holds max + 1 bytes; skips the
 * rest of the component and one tab and returns the next component's
 * position. A NULL pos gives "" and NULL. */
QM_EXPORT char *get_list_str_component(const char *pos, char *out, size_t max);
/* The component (at most 31 characters of it) read as scanf's %d reads it;
 * *out = fallback when it holds no number. Returns as above. */
QM_EXPORT char *get_list_int_component(const char *pos, int *out, int fallback);
/* The index for a new instance of the List object: one past the largest
 * existing index, but never below 1001, so that instances created through
 * the web always have indices from 1001 on. -1 when no index is left. */
QM_EXPORT int new_list_index(const char *object);

/* ---- Small state files; both read through Line. The path is used as
 * given. */

/* The first line (at most 4095 characters) without one trailing newline or
 * carriage return, copied into out (size bytes, terminated; size - 1
 * characters when cut). QM_VAR_TRUNCATED when the line is longer than size,
 * QM_VAR_MISSING (out "") when the file cannot be opened, else QM_VAR_OK. */
QM_EXPORT int get_filevar(const char *path, char *out, size_t size);
/* The value of the first line "key=value". It is cut to
 * min(length, size) - 1 characters, which drops the line's newline (and
 * the last character of a final line without one). QM_VAR_MISSING (out "")
 * when the file cannot be opened or no line has the key, else QM_VAR_OK. */
QM_EXPORT int get_logvar(const char *path, const char *key, char *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
