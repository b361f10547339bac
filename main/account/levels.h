// Levels of accounts in the tree, as the column client.level has them.
#ifndef MAIN_ACCOUNT_LEVELS_H
#define MAIN_ACCOUNT_LEVELS_H

// A higher number is deeper in the tree. Values between these occur only in damaged data.
enum account_level {
  LEVEL_ROOT = 0,       // above all accounts; has no quota files
  LEVEL_RESELLER = 10,  // the top of a tree
  LEVEL_CLIENT = 50,
  LEVEL_OWNER = 100  // a user, who owns extensions
};

#endif
