/*
 * Support routines of the named device functions (the table itself is in
 * qm_generic.h): argument pieces, running a tool, reading its output back
 * as one JSON string, and hex text. Gateway paths given here are mapped
 * under QUELM_ROOT. No C++ exception leaves these calls.
 */
#ifndef QM_DEVICE_H
#define QM_DEVICE_H

#include <stddef.h>
#include <sys/types.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    QM_ARGUMENT_PIECE_SIZE = 256,    /* get_argument's output, terminator included */
    QM_BACKGROUND_TIME_LIMIT_S = 60, /* a program started by exec_command is killed after this */
    QM_MAX_DIAGNOSTICS = 8           /* network tests running at once */
};

/* Splits text at "|": with first 1 it starts on text, otherwise it goes on
 * with the text of the previous call. Copies the next piece (at most 255
 * bytes) into out and returns 0, or -1 when there is none. */
QM_EXPORT int get_argument(char *out, const char *text, int first);

/* Runs command, split at blanks into an argument vector (no shell), with
 * its standard error joined to its output; the output goes to
 * "/var/tmp/<tool>_output.txt" and its non-empty lines into out (size bytes,
 * always terminated; 64 KiB at most, then "[output truncated]"). Returns 0,
 * or 12 when the output file cannot be written (14: nothing to run). */
QM_EXPORT int run_cmd(const char *command, char *out, size_t size);

/* Starts argv[0] (by name: under QUELM_ROOT/bin first, then the search
 * path) in the background and returns at once with its process id, or -1.
 * With a prefix, its output goes to "<prefix>_<pid>" (created 0404). It is
 * reaped without SIGCHLD being touched and killed after
 * QM_BACKGROUND_TIME_LIMIT_S seconds. */
QM_EXPORT pid_t exec_command(char *const argv[], const char *prefix);

/* Answers the file (through tfprintf) as one JSON string, lines joined by
 * "|". Returns 0, or 10 after answering "\"Error reading file\"". The
 * first argument is ignored. */
QM_EXPORT int read_command_output(void *ignored, const char *path);

/* The upper-case hex digit of 0..15. */
QM_EXPORT char itoh(int digit);
/* Each byte of text as two upper-case hex digits into out (size bytes,
 * always terminated). 1 when text or out is null, else 0. */
QM_EXPORT int atoh(const char *text, char *out, size_t size);

/* 1 when a network interface of that name (cut to 15 characters) exists, 0
 * when not, -1 when no socket can be had. */
QM_EXPORT int check_ifname_exists(const char *name);

#ifdef __cplusplus
}
#endif

#endif
