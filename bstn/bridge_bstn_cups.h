// CUPS client: update-info exchange and the credential files it maintains.
#pragma once

int bridge_bstn_cups_bootstrap();
