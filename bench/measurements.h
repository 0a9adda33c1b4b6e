// What is measured. Each function adds its rows to the report.
#pragma once

#include <cstdint>
#include <string>

#include "report.h"
#include "service.h"

namespace bench {

// Of a service that has joined and has a guest: guests' frames of one size, what each costs, the show's
// frames, messages. `where` says in the rows' names on which cores.
void measureFrames(Service& service, Report& report, const std::string& where, int width, int height);
void measureFrameCosts(Service& service, Report& report, int width, int height);
void measureShowFrames(Service& service, Report& report, const std::string& where);
void measureMessages(Service& service, Report& report, const std::string& where);

// Of services of their own.
void measureStart(Report& report);
void measureMemory(Report& report);

// With real guests and the real engine: "delay", "load" or "endurance". False if rows are missing.
bool measureMedia(Report& report, const std::string& part);

// A pause between two measurements, in which the threads of both processes fall asleep.
void rest();

Message frameMessage(Order order, int width, int height, int guest = 0);
// Has a guest's frame sent and answers how long it took until the studio held its surface, in nanoseconds.
int64_t frame(Service& service, int width, int height, int guest = 0);

}  // namespace bench
