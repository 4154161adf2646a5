// The trade-tape requests in SQL, run by DuckDB on one thread. Prints each
// result and its best time as JSON; loading the tape is not timed.
//
//   node duckdb_requests.mjs TAPE_DIR LIBRARY_JSON RUNS
//
// The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
// parameters (thresholds, time range) come from the library's JSON results.
import { DuckDBInstance, DuckDBDataChunk, TIMESTAMP, DOUBLE, INTEGER, USMALLINT } from '@duckdb/node-api';
import bindings from '@duckdb/node-bindings';
import { readFileSync } from 'node:fs';
import { performance } from 'node:perf_hooks';

const [dir, libraryJson, runsText] = process.argv.slice(2);
if (!dir || !libraryJson) {
    console.error('usage: node duckdb_requests.mjs TAPE_DIR LIBRARY_JSON [RUNS]');
    process.exit(1);
}
const runs = Number(runsText ?? 5);
const p = JSON.parse(readFileSync(libraryJson, 'utf8')).params;

// A DOUBLE literal, so that the comparison is between doubles.
const real = (x) => (Number.isInteger(x) ? x.toFixed(1) : String(x));
const inRange = `ts >= make_timestamp(${p.range_from_us}) AND ts < make_timestamp(${p.range_till_us})`;
const requests = {
    large_size: `SELECT coalesce(sum(size), 0) FROM trades WHERE size > ${p.large_trade}`,
    notional: `SELECT coalesce(sum(price * size), 0) FROM trades`,
    price_mean: `SELECT avg(price) FROM trades WHERE ${inRange}`,
    price_dev: `SELECT stddev_pop(price) FROM trades WHERE ${inRange}`,
    small_trades: `SELECT count(*) FROM trades WHERE size <= ${p.small_trade}`,
    top_symbols: `SELECT count(*) FROM trades WHERE symbol < ${p.top_symbols}`,
    above_100: `SELECT count(*) FROM trades WHERE price > ${real(p.price_level)}`,
};

const instance = await DuckDBInstance.create(':memory:', { threads: '1' });
const connection = await instance.connect();
await connection.run('SET threads = 1');
await connection.run('CREATE TABLE trades (ts TIMESTAMP, price DOUBLE, size INTEGER, symbol USMALLINT)');

// The column files are the memory images DuckDB keeps (TIMESTAMP is int64
// microseconds since the epoch), so each vector is filled by one copy.
const columns = [['ts.u64', 8], ['price.f64', 8], ['size.i32', 4], ['symbol.u16', 2]].map(([name, width]) => {
    const bytes = readFileSync(`${dir}/${name}`);
    return { name, width, bytes, rows: bytes.length / width };
});
const rows = columns[0].rows;
for (const c of columns)
    if (c.rows !== rows) throw new Error(`${dir}/${c.name} has ${c.rows} values, ts.u64 has ${rows}`);

const appender = await connection.createAppender('trades');
const chunk = DuckDBDataChunk.create([TIMESTAMP, DOUBLE, INTEGER, USMALLINT]);
const chunkRows = bindings.vector_size();
for (let start = 0; start < rows; start += chunkRows) {
    const n = Math.min(chunkRows, rows - start);
    chunk.reset();
    columns.forEach((c, i) => {
        const vector = bindings.data_chunk_get_vector(chunk.chunk, i);
        bindings.copy_data_to_vector(vector, 0, c.bytes.buffer, c.bytes.byteOffset + start * c.width, n * c.width);
    });
    chunk.rowCount = n;
    appender.appendDataChunk(chunk);
}
appender.closeSync();
const loaded = (await connection.runAndReadAll('SELECT count(*) FROM trades')).getRows()[0][0];
if (Number(loaded) !== rows) throw new Error(`loaded ${loaded} rows of ${rows}`);

// JSON has neither 64-bit integers nor NaN: integers are written as digits.
const jsonValue = (v) => {
    if (typeof v === 'bigint') return v.toString();
    if (v === null || Number.isNaN(v)) return 'null';
    return String(v);
};

const results = [];
for (const [key, sql] of Object.entries(requests)) {
    let best = Infinity;
    let value;
    for (let run = 0; run < runs; ++run) {
        const start = performance.now();
        const reader = await connection.runAndReadAll(sql);
        value = reader.getRows()[0][0];
        best = Math.min(best, (performance.now() - start) / 1e3);
    }
    results.push(`    "${key}": {"value": ${jsonValue(value)}, "seconds": ${best.toFixed(9)}, "sql": ${JSON.stringify(sql)}}`);
}
const version = (await connection.runAndReadAll('SELECT version()')).getRows()[0][0];
console.log(`{\n  "tool": "DuckDB ${version}",\n  "rows": ${rows},\n  "results": {\n${results.join(',\n')}\n  }\n}`);
