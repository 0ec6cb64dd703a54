// What an abstract class has of its own: the body of its destructor.
#include "KXMBasMemCacheManager.h"

KXMBasMemCacheManager::~KXMBasMemCacheManager() {}
