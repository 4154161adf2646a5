// The trade-tape requests in SQL, run by DuckDB on one thread or more. Prints
// each result and its best time as JSON; loading the tape is not timed.
//
//   node duckdb_requests.mjs TAPE_DIR LIBRARY_JSON RUNS [THREADS]
//
// The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
// parameters (thresholds, time range, windows, pattern) come from the library's
// JSON results. Loading adds each trade's position (pos, 0 up, for the
// requests that need the tape's order) and its symbol's name ('SYM' || symbol).
// A request SQL cannot express is reported as not run, with the reason.
import { DuckDBInstance, DuckDBDataChunk, TIMESTAMP, DOUBLE, INTEGER, USMALLINT, BIGINT } from '@duckdb/node-api';
import bindings from '@duckdb/node-bindings';
import { readFileSync } from 'node:fs';
import { performance } from 'node:perf_hooks';

const [dir, libraryJson, runsText, threadsText] = process.argv.slice(2);
if (!dir || !libraryJson) {
    console.error('usage: node duckdb_requests.mjs TAPE_DIR LIBRARY_JSON [RUNS] [THREADS]');
    process.exit(1);
}
const runs = Number(runsText ?? 5);
const threads = Number(threadsText ?? 1);
const p = JSON.parse(readFileSync(libraryJson, 'utf8')).params;

// A DOUBLE literal, so that the comparison is between doubles.
const real = (x) => (Number.isInteger(x) ? x.toFixed(1) : String(x));
const inRange = `ts >= make_timestamp(${p.range_from_us}) AND ts < make_timestamp(${p.range_till_us})`;
const text = (s) => `'${s.replaceAll("'", "''")}'`;
const second = `epoch_us(ts) // ${p.second_us}`;
const requests = {
    large_size: `SELECT coalesce(sum(size), 0) FROM trades WHERE size > ${p.large_trade}`,
    notional: `SELECT coalesce(sum(price * size), 0) FROM trades`,
    price_mean: `SELECT avg(price) FROM trades WHERE ${inRange}`,
    price_dev: `SELECT stddev_pop(price) FROM trades WHERE ${inRange}`,
    small_trades: `SELECT count(*) FROM trades WHERE size <= ${p.small_trade}`,
    top_symbols: `SELECT count(*) FROM trades WHERE symbol < ${p.top_symbols}`,
    above_100: `SELECT count(*) FROM trades WHERE price > ${real(p.price_level)}`,
    moving_price: { notRun: 'SQL has no exponential moving average, only a recursive CTE through every row' },
    // Positions break ties in size: the earlier trade first.
    top_trades: `SELECT coalesce(sum(rank * (size + pos)), 0) FROM (
        SELECT size, pos, row_number() OVER (ORDER BY size DESC, pos) AS rank
        FROM (SELECT size, pos FROM trades ORDER BY size DESC, pos LIMIT ${p.top_trades}))`,
    // Each second's close is the price of its last trade, or the close
    // before it for a second without trades. A trade advances the carried
    // close by at most one second, so it gets close number
    // pos + min(second - pos) over the trades up to it: its own second
    // unless seconds without trades came before it.
    second_close: `WITH seconds AS (SELECT ${second} AS second, pos, price FROM trades),
        bounds AS (SELECT min(second) AS first, max(second) AS last FROM seconds),
        last_trades AS (SELECT second, arg_max(price, pos) AS close FROM seconds GROUP BY second),
        closes AS (
            SELECT second - first AS k, last_value(close IGNORE NULLS) OVER (ORDER BY second) AS close
            FROM (SELECT unnest(range(first, last + 1)) AS second, first FROM bounds)
            LEFT JOIN last_trades USING (second)),
        carried AS (
            SELECT pos + min(second - first - pos) OVER (ORDER BY pos ROWS UNBOUNDED PRECEDING) AS k
            FROM seconds, bounds)
        SELECT coalesce(sum(close), 0) FROM carried JOIN closes USING (k)`,
    // Turns of the price's trend (the first move is one), crossings of the
    // level, and the size histogram weighted by bin number.
    direction: `WITH turns AS (
            SELECT count(*) FILTER (WHERE moved IS DISTINCT FROM before) AS n FROM (
                SELECT moved, lag(moved) OVER (ORDER BY pos) AS before
                FROM (SELECT pos, sign(price - lag(price) OVER (ORDER BY pos)) AS moved FROM trades)
                WHERE moved <> 0)),
        crossings AS (
            SELECT count(*) FILTER (WHERE side <> before) AS n FROM (
                SELECT side, lag(side) OVER (ORDER BY pos) AS before
                FROM (SELECT pos, sign(price - ${real(p.price_level)}) AS side FROM trades)
                WHERE side <> 0)),
        extremes AS (SELECT min(size) AS low, max(size) AS high FROM trades),
        histogram AS (
            SELECT sum((bin + 1) * count) AS n FROM (
                SELECT (size - low)::BIGINT * ${p.size_bins} // (high::BIGINT + 1 - low) AS bin, count(*) AS count
                FROM trades, extremes GROUP BY bin))
        SELECT turns.n + crossings.n + coalesce(histogram.n, 0) FROM turns, crossings, histogram`,
    sampled_symbol_runs: `SELECT count(*) FILTER (WHERE symbol IS DISTINCT FROM before) FROM (
        SELECT symbol, lag(symbol) OVER (ORDER BY pos) AS before FROM trades WHERE pos % ${p.sample_every} = 0)`,
    symbol_match: `SELECT count(*) FROM trades WHERE name LIKE ${text(p.symbol_pattern)}`,
    symbol_average: `SELECT max(average) FROM (SELECT avg(size) AS average FROM trades GROUP BY symbol)`,
    // Alignment with the quote tape (loaded as quotes(ts, bid)).
    bid_before: `SELECT coalesce(sum(q.bid), 0) FROM trades t ASOF JOIN quotes q ON t.ts >= q.ts`,
    bid_after_5ms: `SELECT coalesce(sum(q.bid), 0) FROM trades t ASOF JOIN quotes q ON t.ts <= q.ts
        WHERE epoch_us(q.ts) - epoch_us(t.ts) <= ${p.quote_within_us}`,
    spread_on_axis: `WITH axis AS (SELECT ts FROM trades UNION SELECT ts FROM quotes)
        SELECT coalesce(sum(t.price + q.bid), 0) FROM axis a
        ASOF JOIN trades t ON a.ts >= t.ts ASOF JOIN quotes q ON a.ts >= q.ts`,
    at_quote: `SELECT coalesce(sum(t.price + q.bid), 0) FROM trades t JOIN quotes q ON t.ts = q.ts`,
    quotes_per_second: `WITH c AS (SELECT epoch_us(ts) // ${p.second_us} AS s, count(*) AS n FROM quotes GROUP BY s),
        b AS (SELECT min(epoch_us(ts)) // ${p.second_us} AS lo, max(epoch_us(ts)) // ${p.second_us} AS hi FROM trades)
        SELECT coalesce(sum((c.s - b.lo + 1) * c.n), 0) FROM c, b WHERE c.s BETWEEN b.lo AND b.hi`,
};

const instance = await DuckDBInstance.create(':memory:', { threads: String(threads) });
const connection = await instance.connect();
await connection.run(`SET threads = ${threads}`);
await connection.run('CREATE TABLE tape (ts TIMESTAMP, price DOUBLE, size INTEGER, symbol USMALLINT, pos BIGINT)');

// The column files are the memory images DuckDB keeps (TIMESTAMP is int64
// microseconds since the epoch), so each vector is filled by one copy.
const columns = [['ts.u64', 8], ['price.f64', 8], ['size.i32', 4], ['symbol.u16', 2]].map(([name, width]) => {
    const bytes = readFileSync(`${dir}/${name}`);
    return { name, width, bytes, rows: bytes.length / width };
});
const rows = columns[0].rows;
for (const c of columns)
    if (c.rows !== rows) throw new Error(`${dir}/${c.name} has ${c.rows} values, ts.u64 has ${rows}`);

const appender = await connection.createAppender('tape');
const chunk = DuckDBDataChunk.create([TIMESTAMP, DOUBLE, INTEGER, USMALLINT, BIGINT]);
const chunkRows = bindings.vector_size();
const positions = new BigInt64Array(chunkRows);
for (let start = 0; start < rows; start += chunkRows) {
    const n = Math.min(chunkRows, rows - start);
    chunk.reset();
    columns.forEach((c, i) => {
        const vector = bindings.data_chunk_get_vector(chunk.chunk, i);
        bindings.copy_data_to_vector(vector, 0, c.bytes.buffer, c.bytes.byteOffset + start * c.width, n * c.width);
    });
    for (let i = 0; i < n; ++i) positions[i] = BigInt(start + i);
    const pos = bindings.data_chunk_get_vector(chunk.chunk, columns.length);
    bindings.copy_data_to_vector(pos, 0, positions.buffer, 0, n * 8);
    chunk.rowCount = n;
    appender.appendDataChunk(chunk);
}
appender.closeSync();
// The quote tape: stamps and bids.
await connection.run('CREATE TABLE quotes (ts TIMESTAMP, bid DOUBLE)');
{
    const quoteColumns = [['quote_ts.u64', 8], ['bid.f64', 8]].map(([name, width]) => {
        const bytes = readFileSync(`${dir}/${name}`);
        return { name, width, bytes, rows: bytes.length / width };
    });
    const quoteRows = quoteColumns[0].rows;
    if (quoteColumns[1].rows !== quoteRows) throw new Error(`${dir}: quote_ts.u64 and bid.f64 differ in length`);
    const quoteAppender = await connection.createAppender('quotes');
    const quoteChunk = DuckDBDataChunk.create([TIMESTAMP, DOUBLE]);
    for (let start = 0; start < quoteRows; start += chunkRows) {
        const n = Math.min(chunkRows, quoteRows - start);
        quoteChunk.reset();
        quoteColumns.forEach((c, i) => {
            const vector = bindings.data_chunk_get_vector(quoteChunk.chunk, i);
            bindings.copy_data_to_vector(vector, 0, c.bytes.buffer, c.bytes.byteOffset + start * c.width, n * c.width);
        });
        quoteChunk.rowCount = n;
        quoteAppender.appendDataChunk(quoteChunk);
    }
    quoteAppender.closeSync();
}
// The names as VARCHAR (DuckDB's CHAR(8) is VARCHAR too), in the tape's order.
await connection.run(`CREATE TABLE trades AS SELECT *, 'SYM' || symbol AS name FROM tape ORDER BY pos`);
await connection.run('DROP TABLE tape');
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
    if (sql.notRun) {
        results.push(`    "${key}": {"value": null, "seconds": null, "not_run": ${JSON.stringify(sql.notRun)}}`);
        continue;
    }
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
console.log(`{\n  "tool": "DuckDB ${version}, ${threads} thread${threads === 1 ? '' : 's'}",\n  "rows": ${rows},\n  "results": {\n${results.join(',\n')}\n  }\n}`);
