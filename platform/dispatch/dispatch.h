/*
 * Grand Central Dispatch, as far as the guest service and its studio use it.
 *
 * Objects are counted: one from a function with "create" in its name belongs to the caller, who gives it
 * back with dispatch_release; global queues and queue attributes are never destroyed. A queue lives at least
 * as long as it has blocks to run, and a block may release the last reference of the queue that it runs on.
 * Every function may be called on any thread. A block must not throw.
 *
 * Blocks run on threads of the system's own, which have all asynchronous signals blocked. Threads are all of
 * one priority, since an ordinary user of this system may not raise any: quality-of-service classes are
 * accepted and change nothing.
 */
#pragma once

#include <dispatch/closure.h>
#include <stddef.h>
#include <stdint.h>

/* ---- Objects ---- */

typedef struct dispatch_object_s {
  virtual void retain() noexcept = 0;
  virtual void release() noexcept = 0;
  virtual void resume() noexcept = 0;

 protected:
  ~dispatch_object_s() = default;
} * dispatch_object_t;

typedef struct dispatch_queue_s : dispatch_object_s{} * dispatch_queue_t;
typedef struct dispatch_queue_attr_s : dispatch_object_s{} * dispatch_queue_attr_t;
typedef struct dispatch_source_s : dispatch_object_s{} * dispatch_source_t;

typedef platform::Closure<void()> dispatch_block_t;

extern "C" {

void dispatch_retain(dispatch_object_t object);
void dispatch_release(dispatch_object_t object);
/* Starts a source, which is created at rest. There is nothing else to resume: for a queue, or for a source
 * that runs, the process is ended as the system does it. */
void dispatch_resume(dispatch_object_t object);

/* ---- Time: nanoseconds of the monotonic clock ---- */

#define NSEC_PER_SEC 1000000000ull
#define NSEC_PER_MSEC 1000000ull
#define USEC_PER_SEC 1000000ull
#define NSEC_PER_USEC 1000ull

typedef uint64_t dispatch_time_t;
#define DISPATCH_TIME_NOW (0ull)
#define DISPATCH_TIME_FOREVER (~0ull)

/* The time delta nanoseconds after when. Forever stays forever, and so does what lies past it. */
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);

/* ---- Queues ---- */

typedef unsigned int qos_class_t;
typedef qos_class_t dispatch_qos_class_t;
enum : qos_class_t {
  QOS_CLASS_USER_INTERACTIVE = 0x21,
  QOS_CLASS_USER_INITIATED = 0x19,
  QOS_CLASS_DEFAULT = 0x15,
  QOS_CLASS_UTILITY = 0x11,
  QOS_CLASS_BACKGROUND = 0x09,
  QOS_CLASS_UNSPECIFIED = 0x00,
};

extern const dispatch_queue_attr_t _dispatch_queue_attr_concurrent;
#define DISPATCH_QUEUE_SERIAL ((dispatch_queue_attr_t) nullptr)
#define DISPATCH_QUEUE_CONCURRENT _dispatch_queue_attr_concurrent

#define DISPATCH_QUEUE_PRIORITY_HIGH 2
#define DISPATCH_QUEUE_PRIORITY_DEFAULT 0
#define DISPATCH_QUEUE_PRIORITY_LOW (-2)
#define DISPATCH_QUEUE_PRIORITY_BACKGROUND INT16_MIN

/* attr with a class and a relative priority of -15 to 0; NULL, which is a serial queue's, for others. */
dispatch_queue_attr_t dispatch_queue_attr_make_with_qos_class(dispatch_queue_attr_t attr,
                                                              dispatch_qos_class_t qos_class,
                                                              int relative_priority);
/* A serial queue runs one block at a time, in the order in which they were submitted. A concurrent one runs
 * as many at once as there are, even while some of them sleep. The label is copied, NULL counts as "". */
dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr);
/* The concurrent queue of the whole process. identifier: a priority or class from above; flags: 0. */
dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags);
/* From now on the object's blocks run on that queue: one serial queue's in its order between the other
 * blocks of a serial target, or on any thread if the target is concurrent. To be called before the first
 * block is submitted; targets make no circle. */
void dispatch_set_target_queue(dispatch_object_t object, dispatch_queue_t queue);
/* The queue's label, which lives as long as the queue. */
#define DISPATCH_CURRENT_QUEUE_LABEL ((dispatch_queue_t) nullptr)
const char* dispatch_queue_get_label(dispatch_queue_t queue);

/* Submits the block and returns at once. */
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
/* Runs the block on the calling thread, in its turn, and returns when it is through. On a serial queue that
 * the calling thread is already running on, the process is ended. */
void dispatch_sync(dispatch_queue_t queue, const dispatch_block_t& block);
/* Submits the block at that time, not before; forever is never. */
void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block);

/* ---- Once ---- */

/* Zero before the first call; static, so that it is. */
typedef long dispatch_once_t;
/* Runs the block if no call with that predicate has yet; every call returns after the block has ended. */
void dispatch_once(dispatch_once_t* predicate, const dispatch_block_t& block);

/* ---- Timers ---- */

typedef const struct dispatch_source_type_s* dispatch_source_type_t;
extern const struct dispatch_source_type_s _dispatch_source_type_timer;
#define DISPATCH_SOURCE_TYPE_TIMER (&_dispatch_source_type_timer)

/* A timer whose handlers run on the queue, one at a time also if the queue is concurrent. handle and mask
 * are 0; NULL for other types. When its last reference is released it is cancelled. */
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
                                         dispatch_queue_t queue);
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler);
/* Runs once, after the last event handler, when the source is cancelled. */
void dispatch_source_set_cancel_handler(dispatch_source_t source, dispatch_block_t handler);
/* Fires at start, and from there every interval nanoseconds, without drift; with an interval of
 * DISPATCH_TIME_FOREVER once. Ticks that pass while the handler has not run yet are given to it as one.
 * leeway, which allows a timer to be late, is not made use of. Replaces the former setting. */
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t leeway);
/* In the event handler: how many ticks it stands for. */
uintptr_t dispatch_source_get_data(dispatch_source_t source);
/* No event handler starts after the call, if it is made on the source's serial queue; else one that is about
 * to start may still run. Both handlers are let go of afterwards. */
void dispatch_source_cancel(dispatch_source_t source);

}  // extern "C"
