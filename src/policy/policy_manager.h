// policy_manager.h - scene policy: measures scene change against a reference frame and decides
// when depth and refocus maps are regenerated.
//
// init, deinit and update run on the caller's thread (init and deinit from the bokeh manager's
// set-up and tear-down, update once per frame); refocus_map_check runs on the refocus-map worker.
#ifndef VMKTRRT_POLICY_POLICY_MANAGER_H
#define VMKTRRT_POLICY_POLICY_MANAGER_H

#include <cstdint>

struct SessionContext;

int32_t policy_manager_init(SessionContext* ctx);
int32_t policy_manager_deinit(SessionContext* ctx);
// 1 when the scene is stable (policy state 5 after the update), else 0.
int32_t policy_manager_update(SessionContext* ctx);
// 1 when the refocus map may be kept, 0 when it must be remade.
int32_t policy_manager_refocus_map_check(const uint8_t* current, const uint8_t* reference, int32_t width,
                                         int32_t height);

#endif  // VMKTRRT_POLICY_POLICY_MANAGER_H
