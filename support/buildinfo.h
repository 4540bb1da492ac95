// Build-time facts that parts of the program below the application shell need to read.
#pragma once

// Whether this is a service build, which treats a unit of another product as upgradable.
bool have_service_build();
