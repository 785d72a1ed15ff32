// Start and stop of the interface to the MRIB.
#ifndef MVPN_MRIB_H
#define MVPN_MRIB_H

// init: 0 after a report; what is there is replaced by the next start. deinit: 0 when the deregistration failed.
int mvpn_init_mrib();
int mvpn_deinit_mrib(int deregister);

#endif  // MVPN_MRIB_H
