// The trade-tape requests in Polars (its Rust engine through nodejs-polars),
// written as a Polars user would: one DataFrame and expressions. Prints each
// result and its best time as JSON; loading the tape is not timed.
//
//   POLARS_MAX_THREADS=N node polars_requests.mjs TAPE_DIR LIBRARY_JSON [RUNS]
//
// Polars sizes its thread pool from POLARS_MAX_THREADS when it loads (every
// core without it); the run script runs this once with 1 and once with all.
// The tape is the raw columns of `qmo_seq_demo --write-columns`; the request
// parameters come from the library's JSON results.
import pl from 'nodejs-polars';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { availableParallelism } from 'node:os';
import { performance } from 'node:perf_hooks';

const [dir, libraryJson, runsText] = process.argv.slice(2);
if (!dir || !libraryJson) {
    console.error('usage: node polars_requests.mjs TAPE_DIR LIBRARY_JSON [RUNS]');
    process.exit(1);
}
const runs = Number(runsText ?? 5);
const library = JSON.parse(readFileSync(libraryJson, 'utf8'));
const p = library.params;
const version = createRequire(import.meta.url)('nodejs-polars/package.json').version;
const threads = Number(process.env.POLARS_MAX_THREADS ?? availableParallelism());

const column = (name, Type) => {
    const bytes = readFileSync(`${dir}/${name}`);
    return new Type(bytes.buffer, bytes.byteOffset, bytes.length / Type.BYTES_PER_ELEMENT);
};
const df = pl
    .DataFrame({
        ts: column('ts.u64', BigInt64Array),
        price: column('price.f64', Float64Array),
        size: column('size.i32', Int32Array),
        symbol: column('symbol.u16', Uint16Array),
    })
    .withColumns(pl.col('ts').cast(pl.Datetime('us')), pl.format('SYM{}', pl.col('symbol')).alias('name'));
const rows = df.height;

// The single value of a one-row, one-column result; null for none.
const one = (frame) => {
    const v = frame.row(0)[0];
    return v === undefined ? null : v;
};
const price = pl.col('price');
const size = pl.col('size');
const sign = (e) => pl.when(e.gt(0)).then(pl.lit(1)).when(e.lt(0)).then(pl.lit(-1)).otherwise(pl.lit(0));
const stamp = (us) => pl.lit(new Date(us / 1000)).cast(pl.Datetime('us')).add(pl.lit(us % 1000).cast(pl.Duration('us')));
const inRange = pl.col('ts').gtEq(stamp(p.range_from_us)).and(pl.col('ts').lt(stamp(p.range_till_us)));
// A LIKE pattern as an anchored regular expression.
const likeRegex = (pattern) =>
    '^' + [...pattern].map((c) => (c === '%' ? '.*' : c === '_' ? '.' : c.replace(/[.*+?^${}()|[\]\\]/g, '\\$&'))).join('') + '$';

const requests = {
    large_size: () => one(df.filter(size.gt(p.large_trade)).select(size.cast(pl.Int64).sum())) ?? 0,
    notional: () => one(df.select(price.mul(size).sum())),
    price_mean: () => one(df.filter(inRange).select(price.mean())),
    // Polars' std divides by n - 1: the population deviation, from the mean.
    price_dev: () => one(df.filter(inRange).select(price.sub(price.mean()).pow(2).mean().pow(0.5))),
    small_trades: () => one(df.select(size.ltEq(p.small_trade).sum())),
    top_symbols: () => one(df.select(pl.col('symbol').lt(p.top_symbols).sum())),
    above_100: () => one(df.select(price.gt(p.price_level).sum())),
    moving_price: () => {
        const w = p.moving_trades;
        // The window starts as w zeros: the first sums divide by w too.
        const moving = one(df.select(price.rollingSum({ windowSize: w, minPeriods: 1 }).div(w).sum()));
        const ema = one(df.select(price.ewmMean({ alpha: 2 / (w + 1), adjust: false }).sum()));
        const grid = one(
            df
                .withRowIndex('pos')
                .groupBy(pl.col('pos').div(p.grid_trades).floor().alias('cell'))
                .agg(price.mean().alias('average'))
                .select(pl.col('average').sum()),
        );
        return moving + ema + grid;
    },
    top_trades: () => {
        // Ties in size: the earlier trade first.
        const top = df.withRowIndex('pos').select('size', 'pos').sort(['size', 'pos'], [true, false]).head(p.top_trades);
        let sum = 0;
        top.rows().forEach(([s, pos], r) => (sum += (r + 1) * (Number(s) + Number(pos))));
        return sum;
    },
    second_close: () => {
        const step = p.second_us;
        // Each second's close is its last trade's price, or the close before
        // it; a trade advances the carried close by at most one second, so it
        // gets close number pos + min(second - pos) over the trades up to it.
        const seconds = df.withRowIndex('pos').select(
            pl.col('pos').cast(pl.Int64),
            pl.col('ts').cast(pl.Int64).div(step).floor().cast(pl.Int64).alias('second'),
            price,
        );
        const first = one(seconds.select(pl.col('second').min()));
        const last = one(seconds.select(pl.col('second').max()));
        const closes = pl
            .DataFrame({ second: pl.intRange(first, last + 1, 1, pl.Int64, true) })
            .join(seconds.groupBy('second').agg(price.last().alias('close')), { on: 'second', how: 'left' })
            .sort('second')
            .select(pl.col('close').forwardFill())
            .withRowIndex('k')
            .select(pl.col('k').cast(pl.Int64), 'close');
        const carried = seconds.select(
            pl.col('pos').add(pl.col('second').sub(pl.lit(first).cast(pl.Int64)).sub(pl.col('pos')).cumMin()).alias('k'),
        );
        return one(carried.join(closes, { on: 'k' }).select(pl.col('close').sum())) ?? 0;
    },
    direction: () => {
        const moved = df.select(sign(price.diff(1, 'drop')).alias('m')).filter(pl.col('m').neq(0));
        const turns = one(moved.select(pl.col('m').neq(pl.col('m').shift(1)).fillNull(true).sum()));
        const side = df.select(sign(price.sub(p.price_level)).alias('s')).filter(pl.col('s').neq(0));
        const crossings = one(side.select(pl.col('s').neq(pl.col('s').shift(1)).sum())) ?? 0;
        const low = one(df.select(size.min()));
        const high = one(df.select(size.max()));
        const histogram = one(
            df
                .select(size.cast(pl.Int64).sub(low).mul(p.size_bins).div(high + 1 - low).floor().cast(pl.Int64).alias('bin'))
                .groupBy('bin')
                .agg(pl.col('bin').count().alias('n'))
                .select(pl.col('bin').add(1).mul(pl.col('n')).sum()),
        );
        return Number(turns ?? 0) + Number(crossings) + Number(histogram ?? 0);
    },
    sampled_symbol_runs: () => {
        const sample = df.select(pl.col('symbol').gatherEvery(p.sample_every));
        return one(sample.select(pl.col('symbol').neq(pl.col('symbol').shift(1)).fillNull(true).sum()));
    },
    symbol_match: () => one(df.select(pl.col('name').str.contains(likeRegex(p.symbol_pattern)).sum())),
    symbol_average: () => one(df.groupBy('symbol').agg(size.mean().alias('average')).select(pl.col('average').max())),
};

const jsonValue = (v) => {
    if (typeof v === 'bigint') return v.toString();
    if (v === null || Number.isNaN(v)) return 'null';
    return String(v);
};
const results = [];
for (const [key, request] of Object.entries(requests)) {
    let best = Infinity;
    let value;
    for (let run = 0; run < runs; ++run) {
        const start = performance.now();
        value = request();
        best = Math.min(best, (performance.now() - start) / 1e3);
    }
    results.push(`    "${key}": {"value": ${jsonValue(value)}, "seconds": ${best}}`);
}
// The quote requests are not written for Polars here: reported as not run.
for (const { key } of library.requests)
    if (!(key in requests)) results.push(`    "${key}": {"value": null, "seconds": null, "not_run": "not written for Polars"}`);
console.log(`{\n  "tool": "Polars ${version}, ${threads} thread${threads === 1 ? '' : 's'}",\n  "rows": ${rows},\n` +
    `  "results": {\n${results.join(',\n')}\n  }\n}`);
