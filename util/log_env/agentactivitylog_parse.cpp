/*
 * agentactivitylog_parse.cpp - splits activity log text into events.
 *
 * A line is "<type> <errorCode> <message>\n": type a non-zero decimal,
 * errorCode a decimal (0 allowed, written as such), message the rest of the
 * line, blanks included, never empty.  Lines that do not fit are skipped.
 */
#include <stdlib.h>
#include <string.h>

#include "agentactivitylog.h"
#include "zellog.h"

#define LOG_SRC "agentactivitylog"

/* Cuts the next blank-separated field off *cursor; null when there is none. */
static char* next_field(char** cursor)
{
    char* field = *cursor;
    char* blank;

    if (field == NULL || *field == '\0')
        return NULL;
    blank = strchr(field, ' ');
    if (blank != NULL) {
        *blank = '\0';
        *cursor = blank + 1;
    } else {
        *cursor = NULL;
    }
    return field;
}

/*
 * Parses one line (newline already removed, modified in place) into ev.
 * 1 when the line is an event, 0 when it must be skipped.
 */
static int parse_event_line(char* line, AgentActivityLogStruc* ev)
{
    char* cursor = line;
    char* type = next_field(&cursor);
    char* code = next_field(&cursor);
    char* message = cursor;

    if (type == NULL || atoi(type) == 0)
        return 0;
    if (code == NULL || (atoi(code) == 0 && code[0] != '0'))
        return 0;
    if (message == NULL || *message == '\0')
        return 0;
    ev->type = (UINT32)atoi(type);
    ev->errorCode = (UINT32)atoi(code);
    /* Messages are kept to their first 1023 characters. */
    strncpy(ev->message, message, sizeof(ev->message) - 1);
    ev->message[sizeof(ev->message) - 1] = '\0';
    return 1;
}

/*
 * Parses length bytes of activity log text.  With entries null it only
 * counts the events (to size the array for a second pass).  With entries,
 * *count is the array's capacity on entry; those entries are zeroed first,
 * and an event beyond the capacity fails the call with -1.  A last line
 * without "\n" is ignored.  Returns the number of events, also stored in
 * *count when count is given; 0 for null text or length < 1; -1 when out
 * of memory or capacity.
 */
int read_activity_log(const char* text, int length, AgentActivityLogStruc* entries, int* count)
{
    AgentActivityLogStruc ev;
    char* copy;
    char* line;
    char* end;
    int capacity = 0, found = 0;

    if (text == NULL || length < 1)
        return 0;
    copy = (char*)malloc((size_t)length + 1);
    if (copy == NULL) {
        ZELLogFunction(3, LOG_SRC, 25, "%s: Failed to allocate memory for st (size=%d).",
                       __func__, length);
        return -1;
    }
    memcpy(copy, text, length);
    copy[length] = '\0';
    if (entries != NULL && count != NULL) {
        capacity = *count > 0 ? *count : 0;
        memset(entries, 0, sizeof(*entries) * capacity);
    }

    end = copy + length;
    for (line = copy; line < end; ) {
        char* nl = (char*)memchr(line, '\n', end - line);
        if (nl == NULL)
            break;
        *nl = '\0';
        memset(&ev, 0, sizeof(ev));
        if (parse_event_line(line, &ev)) {
            if (entries != NULL) {
                if (found >= capacity) {
                    ZELLogFunction(3, LOG_SRC, 60, "%s: pLogSize is too small (logSize=%d).",
                                   __func__, capacity);
                    free(copy);
                    return -1;
                }
                entries[found] = ev;
            }
            found++;
        }
        line = nl + 1;
    }
    free(copy);
    if (count != NULL)
        *count = found;
    return found;
}
