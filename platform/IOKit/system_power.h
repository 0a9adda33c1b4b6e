#pragma once

#include <CoreFoundation/cf_run_loop_source.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <mutex>

namespace platform {

// One registration for sleep and wake: a connection to the system bus of its own, and the delay lock. All but
// allow is called on the run loop's thread.
class SystemPower final : public __CFRunLoopSource {
 public:
  // Null without a system bus or logind.
  static SystemPower* connect(IOServiceInterestCallback callback, void* refcon);

  void schedule(GMainContext* context) override;
  bool allow(intptr_t notification);

 private:
  struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  };
  using Bus = std::unique_ptr<sd_bus, Unref>;

  SystemPower(Bus bus, IOServiceInterestCallback callback, void* refcon)
      : bus_(std::move(bus)), callback_(callback), refcon_(refcon) {}
  ~SystemPower() override = default;

  bool takeLock();
  bool isPreparing() const;
  bool listen();
  void prepareForSleep(bool sleeping);
  void setPending(intptr_t notification);

  const Bus bus_;
  const IOServiceInterestCallback callback_;
  void* const refcon_;

  // Used on the run loop's thread only.
  bool sleeping_ = false;
  intptr_t announced_ = 0;

  std::mutex guard_;
  int lock_ = -1;
  // The sleep that waits to be allowed, or 0.
  intptr_t pending_ = 0;
};

}  // namespace platform
