/* Card presence of the node device manager. */
#ifndef NDM_H
#define NDM_H

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when the card is present and running. */
int ndm_card_is_online(int devid, int slotid, int sslotid);

#ifdef __cplusplus
}
#endif

#endif
