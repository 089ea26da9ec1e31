// Capacity read of start-up: the ring-cut type of the unit's VSL topology.
//
// The type decides which route-map record the LOCAL_DB session subscribes to
// (udp_dpm_session.cpp) and how the map intake reads it. A failed read leaves
// type 0, the plain ring.
#include <cstdio>

#include "libxn_cap.h"
#include "udp_dpm.h"

static int udp_dpm_cap_get(void) {
    char key[128];
    at_snprintf(key, sizeof key, "u_cluster/dpm/dev_topo/%s", "kel_ring_cut_type");
    int rv = libxn_cap_get_capacity_int32(g_udp_dpm_global, key, &g_kel_ring_cut_type);
    if (rv != 0) {
        DPM_ERR("udp_dpm_cap_get fail! rv = %d", rv);
        g_kel_ring_cut_type = 0;
    }
    // Reported at error level on purpose: the type matters when reading any log.
    DPM_ERR("udp_dpm_cap_get, g_kel_ring_cut_type = %d", g_kel_ring_cut_type);
    return rv;
}

int udp_dpm_cap_init(void *handle, const char *owner, void *category) {
    int rv = libxn_cap_init(handle, owner, category);
    if (rv != 0) {
        DPM_ERR("init udp_dpm cap frame failed, rv = %d.", rv);
        return rv;
    }
    udp_dpm_cap_get();
    DPM_INFO("init udp_dpm cap successfully. cut_type = %d", g_kel_ring_cut_type);
    return 0;
}
