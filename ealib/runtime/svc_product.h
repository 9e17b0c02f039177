/*
 * svc_product.h - the node's product lock and the product programs that run
 * on the node (source name "svc_main").
 */
#ifndef SVC_PRODUCT_H
#define SVC_PRODUCT_H

/* Product lock: descriptor >= 0 held, -2 held elsewhere, -1 failure/unset. */
extern int ea_lock_status;

/*
 * Takes the node's product lock into ea_lock_status, held until the process
 * exits ("/etc/.kvx" when readable, else the cache directory's lock file).
 */
void take_product_lock(void);

/*
 * Pid of the first process whose "ps" line contains name; 0 when none runs,
 * -1 when ps could not be started.
 */
int query_process_pid(const char* name);

#endif /* SVC_PRODUCT_H */
