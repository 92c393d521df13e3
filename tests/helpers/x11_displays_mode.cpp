// "x11-displays": prints "<displayID> x,y,w,h" for each display of $DISPLAY,
// so that tests can compare what another process sees.
#include <cstdio>

#include "helpers/helper_modes.h"
#include "platform/linux/x11/x11_screen_provider.h"

static ov::testing::HelperMode x11DisplaysMode("x11-displays", [](const std::vector<std::string>&) {
    ov::platform::x11::X11ScreenProvider provider;
    const auto content = provider.shareableContent(false, false);
    for (const auto& d : content.displays())
        std::printf("%u %g,%g,%g,%g\n", d.displayID, d.frame.origin.x, d.frame.origin.y, d.frame.size.width,
                    d.frame.size.height);
    std::fflush(stdout);
    return 0;
});
