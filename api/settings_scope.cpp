#include "api/settings_scope.h"

#include "common/apiutils.h"
#include "kernel/tarnkrn_control.h"

namespace tarn::api {

SettingsScope::SettingsScope(const tarnpst::Settings& settings) {
    had_ = krnctlThreadSettings(&mode_, &language_, &repairs_) != 0;
    // Language 0 keeps what the thread answers now (an enclosing call's, else the process's).
    const uint16_t language = settings.language != 0 ? settings.language : krnUiLanguage();
    // Documents stay in memory: the library's callers want bytes, not the filter's temporary files.
    krnctlSetThreadSettings(1, tarn::kKernelModeInMemory, language,
                            settings.profile == tarnpst::Profile::kRepaired ? 1 : 0);
}

SettingsScope::~SettingsScope() { krnctlSetThreadSettings(had_ ? 1 : 0, mode_, language_, repairs_); }

}  // namespace tarn::api
