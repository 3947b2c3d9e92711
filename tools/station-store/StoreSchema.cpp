#include "StoreSchema.h"

#include "SqlConnection.h"

namespace station {

namespace {

// Times are UTC ISO 8601 texts of one width ("2026-11-23T20:41:07.123Z"), so text
// order is time order on both back ends. Flags are 0/1 integers; codes are BIGINT
// (they are unsigned 32-bit values).
const char* const kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS store_version (
  version INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS sessions (
  id {id},
  station {text_c} NOT NULL,
  batch {text_c} NOT NULL,
  started_at {text_c} NOT NULL,
  ended_at {text_c},
  state {text_c} NOT NULL
    CHECK (state IN ('running', 'passed', 'failed', 'stopped', 'no_answer', 'unfinished')),
  requests_planned INTEGER NOT NULL CHECK (requests_planned >= 0),
  camera_serial {text_c} NOT NULL,
  product_number {text_c} NOT NULL
);
CREATE INDEX IF NOT EXISTS sessions_by_station ON sessions (station, state);
CREATE INDEX IF NOT EXISTS sessions_by_serial ON sessions (camera_serial);
CREATE INDEX IF NOT EXISTS sessions_by_start ON sessions (started_at);
CREATE TABLE IF NOT EXISTS requests (
  session_id BIGINT NOT NULL REFERENCES sessions (id),
  seq INTEGER NOT NULL CHECK (seq >= 1),
  request_text {text_c} NOT NULL,
  step {text_c} NOT NULL,
  expect_fail INTEGER NOT NULL CHECK (expect_fail IN (0, 1)),
  sent_at {text_c} NOT NULL,
  answer_kind {text_c} CHECK (answer_kind IN ('response', 'stream', 'file', 'none')),
  answered INTEGER NOT NULL DEFAULT 0 CHECK (answered IN (0, 1)),
  answered_at {text_c},
  code BIGINT NOT NULL DEFAULT 0,
  value2 BIGINT NOT NULL DEFAULT 0,
  value3 BIGINT NOT NULL DEFAULT 0,
  data {text_c} NOT NULL DEFAULT '',
  description {text_c} NOT NULL DEFAULT '',
  passed INTEGER NOT NULL DEFAULT 0 CHECK (passed IN (0, 1)),
  millis DOUBLE PRECISION NOT NULL DEFAULT 0,
  PRIMARY KEY (session_id, seq)
);
CREATE INDEX IF NOT EXISTS requests_by_step ON requests (step);
CREATE TABLE IF NOT EXISTS result_tables (
  id {id},
  session_id BIGINT NOT NULL,
  seq INTEGER NOT NULL,
  name {text_c} NOT NULL,
  csv {text_c} NOT NULL,
  FOREIGN KEY (session_id, seq) REFERENCES requests (session_id, seq)
);
CREATE INDEX IF NOT EXISTS result_tables_by_session ON result_tables (session_id, seq);
)SQL";

} // namespace

std::string StoreSchema::Statements(const SqlConnection& connection)
{
    std::string sql = kSchema;
    for (const char* token : {"id", "text_c"}) {
        const std::string placeholder = std::string("{") + token + "}";
        const std::string type = connection.SchemaType(token);
        for (size_t at = sql.find(placeholder); at != std::string::npos; at = sql.find(placeholder, at + type.size()))
            sql.replace(at, placeholder.size(), type);
    }
    return sql;
}

} // namespace station
