/// Creation of every thread of the tool.
#ifndef OS_THREAD_H
#define OS_THREAD_H

#include <pthread.h>

/// Creates a thread in which the real-time signals SIGRTMIN+6 and SIGRTMIN+10 are blocked; they stay blocked in the
/// calling thread too. A null `thread` drops the handle. Aborts when the signal mask cannot be set.
/// Returns the result of pthread_create.
int os_thread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument);

#endif
