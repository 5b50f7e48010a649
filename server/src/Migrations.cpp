#include "Migrations.h"

namespace tavelo::cloud {

const std::vector<Migration>& migrations() {
    static const std::vector<Migration> steps = {
        {1,
         {
             "CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT NOT NULL)",
             "CREATE TABLE users (id TEXT PRIMARY KEY, email TEXT NOT NULL UNIQUE, password_hash TEXT NOT NULL,"
             " email_verified INTEGER NOT NULL DEFAULT 0, created_at DOUBLE PRECISION NOT NULL)",
             "CREATE TABLE ai_links (user_id TEXT PRIMARY KEY, linked INTEGER NOT NULL)",
             "CREATE TABLE schedules (user_id TEXT NOT NULL, id TEXT NOT NULL, title TEXT NOT NULL,"
             " prompt TEXT NOT NULL, first_run DOUBLE PRECISION NOT NULL, time_zone TEXT NOT NULL,"
             " recurrence TEXT, is_paused INTEGER NOT NULL, next_run_at DOUBLE PRECISION,"
             " updated_at DOUBLE PRECISION NOT NULL, PRIMARY KEY (user_id, id))",
             "CREATE INDEX schedules_next_run ON schedules (next_run_at) WHERE next_run_at IS NOT NULL",
             "CREATE TABLE runs (id TEXT PRIMARY KEY, user_id TEXT NOT NULL, schedule_id TEXT NOT NULL,"
             " scheduled_at DOUBLE PRECISION NOT NULL, started_at DOUBLE PRECISION, ended_at DOUBLE PRECISION,"
             " status TEXT NOT NULL, output TEXT NOT NULL DEFAULT '', error TEXT,"
             " attempts INTEGER NOT NULL DEFAULT 0, not_before DOUBLE PRECISION NOT NULL DEFAULT 0,"
             " worker TEXT, lease_until DOUBLE PRECISION, manual INTEGER NOT NULL DEFAULT 0)",
             "CREATE UNIQUE INDEX runs_occurrence ON runs (user_id, schedule_id, scheduled_at) WHERE manual = 0",
             "CREATE INDEX runs_by_user ON runs (user_id, scheduled_at)",
             "CREATE INDEX runs_queue ON runs (status, not_before)",
             "CREATE TABLE refresh_tokens (hash TEXT PRIMARY KEY, family TEXT NOT NULL, user_id TEXT NOT NULL,"
             " created_at DOUBLE PRECISION NOT NULL, replaced_at DOUBLE PRECISION, revoked INTEGER NOT NULL DEFAULT 0)",
             "CREATE INDEX refresh_tokens_family ON refresh_tokens (family)",
             "CREATE TABLE oob_codes (hash TEXT PRIMARY KEY, user_id TEXT NOT NULL, kind TEXT NOT NULL,"
             " expires_at DOUBLE PRECISION NOT NULL, used INTEGER NOT NULL DEFAULT 0)",
         }},
    };
    return steps;
}

} // namespace tavelo::cloud
