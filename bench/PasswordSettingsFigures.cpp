#include "bench/PasswordSettingsFigures.h"

#include "bench/BareStoreRequest.h"

namespace tallow::bench {

void measurePasswordSettings(Bus& bus) {
  BareStoreRequest bare;
  print("password_settings_get_over_http",
        ratioInTurns(
            1000,
            [&] {
              if (!bus.getsPasswordSettings()) fail("getPasswordSettings", "no settings");
            },
            [&] { bare.send(); }),
        "ratio");
}

}  // namespace tallow::bench
