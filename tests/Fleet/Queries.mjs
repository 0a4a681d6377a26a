// Asks an SQL engine what docs/fleet.md asks, of a thousand descriptions as they lie:
//   Queries.mjs MAKE_EVENTS FLEET_MD DUCKDB_DIR
// Catches a key of event.json that no longer has one type, or is not where queries look for it, and queries in the document
// that do not run. Ends with 77 where there is no engine.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { existsSync, mkdtempSync, readFileSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";

const [makeEvents, document, engineDir] = process.argv.slice(2);
if (!existsSync(join(engineDir, "node_modules/@duckdb/node-api"))) {
  console.log(`there is no DuckDB in ${engineDir}: scripts/setup.sh --test`);
  process.exit(77);
}
const { DuckDBInstance } = createRequire(join(engineDir, "/"))("@duckdb/node-api");

/** The document's queries by the words of their first line's comment. */
function readQueries() {
  const blocks = [...readFileSync(document, "utf8").matchAll(/```sql\n-- ([^\n]*)\n(.*?)```/gs)];
  return Object.fromEntries(blocks.map(([, name, text]) => [name, text]));
}

async function ask(connection, text) {
  const started = performance.now();
  const rows = (await connection.runAndReadAll(text)).getRowObjectsJson();
  console.log(`${rows.length} rows in ${Math.round(performance.now() - started)} ms: ${text.split("\n")[0]}`);
  return rows;
}

const directory = mkdtempSync(join(tmpdir(), "tavi-test-"));
try {
  const expected = JSON.parse(execFileSync(makeEvents, [join(directory, "events")], { encoding: "utf8" }));
  const queries = readQueries();
  process.chdir(directory);
  const connection = await (await DuckDBInstance.create(":memory:")).connect();
  // The engine fetches nothing by itself.
  await connection.run("SET autoinstall_known_extensions = false; SET autoload_known_extensions = false");
  await connection.run(queries["the events as a view"]);

  assert.deepEqual(await ask(connection, "SELECT count(*)::INT AS n, count(DISTINCT id)::INT AS ids FROM events"), [{ n: 1000, ids: 1000 }]);
  assert.deepEqual(await ask(connection, queries["the hardest hit of each day"]), expected.hardest);
  assert.equal(expected.hardest.length, 21);

  const byKey = (row) => `${row.unit} ${row.stream}`;
  const sorted = (rows) => rows.toSorted((a, b) => byKey(a).localeCompare(byKey(b)));
  const lacking = (await ask(connection, queries["units whose events lack a stream"])).map((row) => ({ ...row, events: Number(row.events) }));
  assert.deepEqual(sorted(lacking.filter((row) => row.unit !== null)), sorted(expected.lacking));
  assert.equal(lacking.length, 4);

  const types = Object.fromEntries((await ask(connection, "DESCRIBE events")).map((row) => [row.column_name, row.column_type]));
  assert.equal(types.maxG, "DOUBLE");
  assert.equal(types.time, "TIMESTAMP");
  assert.match(types.streams, /^STRUCT\("?type"? VARCHAR, .*\)\[\]$/);
} finally {
  process.chdir("/");
  rmSync(directory, { recursive: true });
}
