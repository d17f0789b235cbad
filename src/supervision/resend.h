/*
 * How long the module waits for an answer and how often it resends an unanswered request
 * before it reports the time-out upward. Plain numbers, so that the tools and the tests show
 * and check the module's own figures instead of restating them.
 */
#ifndef ATCMD_SUPERVISION_RESEND_H
#define ATCMD_SUPERVISION_RESEND_H

/* Resends of an unanswered request; after the last one the time-out is reported. */
#define ATCMD_MAX_RESENDS 2

/* Resend thresholds in microseconds. */
#define ATCMD_TIMEOUT_BEFORE_OPEN 50000u
#define ATCMD_TIMEOUT_WIFI_SERVER 400000u
#define ATCMD_TIMEOUT_DEFAULT 100000u

#endif /* ATCMD_SUPERVISION_RESEND_H */
