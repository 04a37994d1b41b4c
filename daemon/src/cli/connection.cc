#include "daemon/src/cli/connection.h"

namespace vorn::cli {

Database database_named(const std::string& text) {
  for (const char* scheme : {"postgresql://", "postgres://"}) {
    if (text.rfind(scheme, 0) == 0) {
      return {Database::Kind::postgresql, text};
    }
  }
  return {Database::Kind::sqlite, text};
}

std::unique_ptr<Connection> connect(const Database& database) {
  return database.kind == Database::Kind::postgresql ? open_postgresql(database.location)
                                                     : open_sqlite(database.location);
}

}  // namespace vorn::cli
