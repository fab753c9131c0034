// The settings of one public call, made this thread's answers of the kernel's queries for as long as
// the call runs, and the thread's earlier answers restored after it.
#ifndef TARN_API_SETTINGS_SCOPE_H_
#define TARN_API_SETTINGS_SCOPE_H_

#include <cstdint>

#include "tarnpst/tarnpst.h"

namespace tarn::api {

class SettingsScope {
  public:
    explicit SettingsScope(const tarnpst::Settings& settings);
    ~SettingsScope();
    SettingsScope(const SettingsScope&) = delete;
    SettingsScope& operator=(const SettingsScope&) = delete;

  private:
    bool had_ = false;
    int32_t mode_ = 0;
    uint16_t language_ = 0;
    int32_t repairs_ = 0;
};

}  // namespace tarn::api

#endif  // TARN_API_SETTINGS_SCOPE_H_
