// Soak: 2,000 frames with both workers kept busy (a still scene asks for depth every frame, new
// depth and focus moves keep the refocus-map worker going), half of them with the whole debug
// display on, then shut-down. Run under the thread and address sanitizers by their presets.
#include <gtest/gtest.h>
#include <unistd.h>

#include "log_capture.h"
#include "session_support.h"

namespace {

class Soak : public PropertyFixture {};

void soak(Frames& f, int32_t frames, uint32_t layout) {
  ASSERT_EQ(vmKtrRT_SC_Init(f.init(layout)), 0u);
  fakes::setDelayMs("vmDpx2_Run_Express", 1);
  fakes::setDelayMs("vmKtrRT_GenRefocusMap", 1);
  // The focus wanders every 50 frames; the scene stays still.
  const auto focus = [&f](int32_t i) {
    const int32_t k = (i / 50) % 4;
    const int32_t x = 100 + 100 * k, y = 80 + 60 * k;
    return f.trigger(x, x + 80, y, y + 80);
  };
  // The first map takes as long as the machine gives the workers; the soak counts from there.
  ASSERT_TRUE(waitUntil([&] { return vmKtrRT_SC_Run(focus(0)) == 0; }));
  int32_t withMap = 0;
  for (int32_t i = 0; i < frames; ++i) {
    const uint32_t r = vmKtrRT_SC_Run(focus(i));
    ASSERT_LE(r, 1u);
    if (r == 0) ++withMap;
    // Before the focus moves on, both workers have served it at least once more: the workers'
    // pace, not the scheduler's, sets how much they do.
    if (i % 50 == 49) {
      const size_t depth = fakes::count("vmDpx2_Run_Express"), maps = fakes::count("vmKtrRT_GenRefocusMap");
      ASSERT_TRUE(waitUntil([&] {
        vmKtrRT_SC_Run(focus(i));
        return fakes::count("vmDpx2_Run_Express") > depth && fakes::count("vmKtrRT_GenRefocusMap") > maps;
      }));
    }
    // Frames come at a pace, not in a burst.
    usleep(300);
  }
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  EXPECT_GT(fakes::count("vmDpx2_Run_Express"), 10u);
  EXPECT_GT(fakes::count("vmKtrRT_GenRefocusMap"), 10u);
  EXPECT_GT(withMap, frames / 2);
}

TEST_F(Soak, TwoThousandFramesWithBothWorkersBusy) {
  Frames f(640, 480, 320, 240, 320, 240);
  fakes::reset();
  soak(f, 1000, 2);
  fakes::reset();
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "475");  // 0x1DB: every picture, sub paste, markers
  setProp("persist.vm.ktrrt.sc.info", "15");
  soak(f, 1000, 3);
  fakes::reset();
}

}  // namespace
