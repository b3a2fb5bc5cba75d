#include "store/servertables.h"

#include <array>

namespace zel {

namespace {

constexpr auto count = static_cast<std::size_t>(ServerSql::count);

// With @ in front of what is in the schema, and names of what stands in several of them.
constexpr std::array<std::string_view, count> texts{
    "BEGIN",
    "COMMIT",
    "ROLLBACK",
    "SELECT pg_catalog.set_config('search_path', 'pg_catalog', false),"
    " pg_catalog.set_config('lock_timeout', $1, false),"
    " pg_catalog.set_config('default_transaction_isolation', 'read committed', false),"
    " pg_catalog.set_config('jit', 'off', false),"
    " pg_catalog.set_config('tcp_keepalives_idle', '10', false),"
    " pg_catalog.set_config('tcp_keepalives_interval', '5', false),"
    " pg_catalog.set_config('tcp_keepalives_count', '3', false)",
    "SELECT program, format::bigint FROM @state",
    "SELECT count(*) FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"
    " WHERE n.nspname = $1::text",
    "SELECT version FROM @state FOR UPDATE",
    "SELECT version, set_config('synchronous_commit', 'off', true) FROM @state FOR UPDATE",
    "SELECT version, set_config('synchronous_commit', 'off', true),"
    " set_config('enable_hashjoin', 'off', true), set_config('enable_mergejoin', 'off', true)"
    " FROM @state FOR UPDATE",
    "INSERT INTO @clients AS c (id, lease, turn, committed, seen, settled)"
    " SELECT nextval($1::text::regclass) / 4096, greatest(s.pruned, least($2, {newest})), 0, 0,"
    " {newest}, {newest} FROM @state s"
    " RETURNING id, turn, committed, lease, settled, pg_advisory_lock_shared{lock}",
    "UPDATE @clients c SET turn = c.turn + 1, settled = c.seen, gone = NULL,"
    " lease = greatest(s.pruned, least($2, {newest})) FROM @state s WHERE c.id = $1"
    " RETURNING c.id, c.turn, c.committed, c.lease, greatest({newest}, c.settled),"
    " pg_advisory_lock_shared{lock}",
    "SELECT set_config('lock_timeout', $1, true)",
    "UPDATE @state s SET settled = greatest(s.settled, c.settled) FROM @clients c WHERE c.id = $1",
    "DELETE FROM @clients WHERE id = $1",
    "SELECT {newest} FROM @state s",
    "UPDATE @clients SET lease = greatest(lease, $2) WHERE id = $1",
    "SELECT DISTINCT ON (id, part) id, part, since, class, gone, bytes FROM @rows"
    " WHERE id = ANY ($1::bigint[]) AND since <= $2 ORDER BY id, part, since DESC",
    "SELECT id, part, since, class, gone, bytes FROM @rows"
    " WHERE (id, part, since) > ($1, $2, $3) AND id < $4 AND since <= $5"
    " ORDER BY id, part, since LIMIT $6",
    "SELECT DISTINCT id, part FROM @rows WHERE since > $1 AND since <= $2 ORDER BY id, part",
    "SELECT id, part FROM @rows WHERE since > $1 AND since <= $2"
    " UNION SELECT id, 0 FROM @rows WHERE id >= 65536 AND since <= $2 ORDER BY id, part",
    // The sequence alone would not wait for the disk each time: what is written besides does.
    "WITH kept AS (UPDATE @clients SET turn = turn WHERE id = $3)"
    " SELECT nextval($1::text::regclass) FROM generate_series(1, $2::bigint)",
    // While nobody has committed since the base nothing need be looked up.
    "WITH looked AS MATERIALIZED (SELECT s.version, s.version = $3 OR NOT ("
    "EXISTS (SELECT FROM unnest($5::bigint[], $6::bigint[]) p(id, part)"
    " JOIN @rows r ON r.id = p.id AND r.part = p.part AND r.since > $3) OR "
    "EXISTS (SELECT FROM unnest($7::bigint[]) p(id)"
    " JOIN @rows r ON r.id = p.id AND r.since > $3)) AS fits FROM @state s),"
    " mine AS (UPDATE @clients c SET turn = c.turn + 1, lease = greatest(c.lease, $4),"
    " committed = CASE WHEN k.fits THEN k.version + 1 ELSE c.committed END,"
    " seen = CASE WHEN k.fits THEN k.version + 1 ELSE k.version END"
    " FROM looked k WHERE c.id = $1 AND c.turn = $2 RETURNING k.version + 1 AS version, k.fits),"
    " moved AS (UPDATE @state s SET"
    " version = CASE WHEN m.fits THEN m.version ELSE s.version END,"
    " conflicts = CASE WHEN m.fits THEN s.conflicts ELSE s.conflicts + 1 END FROM mine m),"
    " added AS (INSERT INTO @rows (id, part, since, class, gone, bytes)"
    " SELECT p.id, p.part, m.version, p.class, p.gone, p.bytes FROM mine m,"
    " unnest($8::bigint[], $9::bigint[], $10::bigint[], $11::boolean[], $12::bytea[])"
    " p(id, part, class, gone, bytes) WHERE m.fits)"
    " SELECT version, fits FROM mine",
    // In the same transaction, if the first part has come to something.
    "INSERT INTO @rows (id, part, since, class, gone, bytes)"
    " SELECT p.id, p.part, c.committed, p.class, p.gone, p.bytes FROM @clients c,"
    " unnest($4::bigint[], $5::bigint[], $6::bigint[], $7::boolean[], $8::bytea[])"
    " p(id, part, class, gone, bytes) WHERE c.id = $1 AND c.turn = $2 AND c.committed > $3",
    "UPDATE @clients SET settled = seen WHERE id = $1 AND turn = $2",
    "SELECT id FROM (SELECT p.id, min(n) AS n FROM ("
    "SELECT id, part, n FROM unnest($2::bigint[], $3::bigint[]) WITH ORDINALITY a(id, part, n)"
    " UNION ALL SELECT id, NULL, n FROM unnest($4::bigint[]) WITH ORDINALITY b(id, n)) p"
    " WHERE EXISTS (SELECT FROM @rows r WHERE r.id = p.id AND r.since > $1"
    " AND (p.part IS NULL OR r.part = p.part)) GROUP BY p.id) found ORDER BY n, id LIMIT $5",
    "UPDATE @clients c SET gone = now() WHERE gone IS NULL AND id <> $1"
    " AND pg_try_advisory_xact_lock{lock}",
    "UPDATE @state SET settled = greatest(settled, (SELECT max(settled) FROM @clients"
    " WHERE gone < {forgotten})) WHERE EXISTS (SELECT FROM @clients WHERE gone < {forgotten})",
    "DELETE FROM @clients WHERE gone < {forgotten}",
    "WITH oldest AS MATERIALIZED (SELECT coalesce({oldest}, s.pruned) AS version, s.pruned"
    " FROM @state s),"
    " range AS MATERIALIZED (SELECT min(o.pruned) AS first, max(r.since) AS last FROM oldest o,"
    " LATERAL (SELECT since FROM @rows WHERE since > o.pruned AND since <= o.version"
    " ORDER BY since LIMIT $1) r),"
    " moved AS (UPDATE @state SET pruned = a.last FROM range a WHERE a.last IS NOT NULL),"
    " removed AS (DELETE FROM @rows r USING range a"
    " WHERE r.gone AND r.since > a.first AND r.since <= a.last)"
    " DELETE FROM @rows r USING range a, @rows n WHERE n.since > a.first AND n.since <= a.last"
    " AND r.id = n.id AND r.part = n.part AND r.since < n.since",
    "SELECT {newest}, (SELECT count(*) FROM (SELECT DISTINCT ON (id) gone FROM @rows"
    " WHERE part = 0 ORDER BY id, since DESC) r WHERE NOT gone), (SELECT count(*) FROM @rows),"
    " pg_total_relation_size($1::text::regclass) FROM @state s",
    "SELECT (SELECT count(*) FROM @clients c WHERE NOT pg_try_advisory_xact_lock{lock}),"
    " s.conflicts, coalesce({oldest}, {newest}) FROM @state s",
    "SELECT count(*) FROM pg_namespace WHERE nspname = $1::text",
    "CREATE SCHEMA @",
    "CREATE TABLE @state (program text NOT NULL, format int NOT NULL, version bigint NOT NULL,"
    " settled bigint NOT NULL, conflicts bigint NOT NULL, pruned bigint NOT NULL)"
    " WITH (fillfactor = 10)",
    "CREATE TABLE @clients (id bigint PRIMARY KEY, lease bigint NOT NULL, turn bigint NOT NULL,"
    " committed bigint NOT NULL, seen bigint NOT NULL, settled bigint NOT NULL, gone timestamptz)"
    " WITH (fillfactor = 10)",
    "CREATE TABLE @rows (id bigint NOT NULL, part bigint NOT NULL, since bigint NOT NULL,"
    " class bigint NOT NULL, gone boolean NOT NULL, bytes bytea NOT NULL)",
    "CREATE SEQUENCE @ids AS bigint INCREMENT BY 4096 MINVALUE 65536 START 65536",
    "INSERT INTO @rows (id, part, since, class, gone, bytes)"
    " SELECT p.id, p.part, $1, p.class, p.gone, p.bytes FROM"
    " unnest($2::bigint[], $3::bigint[], $4::bigint[], $5::boolean[], $6::bytea[])"
    " p(id, part, class, gone, bytes)",
    "ALTER TABLE @rows ADD PRIMARY KEY (id, part, since)",
    "CREATE INDEX ON @rows (since)",
    "SELECT setval($1::text::regclass, $2, false)",
    "INSERT INTO @state VALUES ('povzel', $1::bigint, $2, $2, 0, 0)",
};
static_assert(!texts.back().empty());

struct Abbreviation {
  std::string_view name;
  std::string_view text;
};
// Those behind may stand in those before.
constexpr Abbreviation abbreviations[] = {
    // An advisory lock has two numbers of 32 bits.
    {"{lock}", "(c.tableoid::int4, (c.id % 2147483647)::int4)"},
    {"{newest}", "greatest(s.settled, (SELECT max(settled) FROM @clients))"},
    // A process that has lost its connection has time to come back.
    {"{oldest}",
     "(SELECT min(lease) FROM @clients WHERE gone IS NULL OR gone > now() - interval '1 minute')"},
    // Until then it can ask what has become of its last commit.
    {"{forgotten}", "now() - interval '1 hour'"},
};

void replaceAll(std::string& text, std::string_view name, std::string_view by) {
  for (std::size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += by.size()) {
    text.replace(at, name.size(), by);
  }
}

}  // namespace

std::string textOf(ServerSql which, std::string_view schema) {
  std::string text(texts[static_cast<std::size_t>(which)]);
  if (which == ServerSql::makeSchema) return text.replace(text.find('@'), 1, schema);
  for (const Abbreviation& each : abbreviations) replaceAll(text, each.name, each.text);
  replaceAll(text, "@", std::string(schema) + '.');
  return text;
}

}  // namespace zel
