// The file of keys: sections named after locations, as the tools of object stores write it.
//
//   [eu]
//   aws_access_key_id = ...
//   aws_secret_access_key = ...
//   aws_session_token = ...
//
// Nothing of it is ever logged.
#ifndef TRANSFER_CREDENTIALS_H
#define TRANSFER_CREDENTIALS_H

#include <map>
#include <string>

#include "platform/s3/client.h"

// Keys may lack a part here; whoever uses them looks.
struct credentials_reading {
  std::map<std::string, s3_credentials, std::less<>> keys;  // by location
  std::string error;                                        // empty, or one line
};

// Refuses a file that others than its owner and its group may open, and what is no regular file.
credentials_reading read_credentials(const std::string &path);

#endif
