#pragma once

#include <opentok.h>

struct SubscriberInfo;

// The callbacks of a guest's subscriber, with `info` as their user data, which they do not own.
otc_subscriber_callbacks subscriberCallbacks(SubscriberInfo* info);
