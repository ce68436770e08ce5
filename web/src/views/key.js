// One action, query, error or call over time: its figures, what belongs to it, and examples.
import { HeatMap } from '../charts/heatmap.js';
import { useQuestion } from '../data.js';
import { actionName, count, duration, placeText, share, time } from '../format.js';
import { html } from '../html.js';
import { LayerBar, LayerLegend } from '../parts/layers.js';
import { OverTime } from '../parts/overtime.js';
import { rangeOf, SumRange } from '../parts/range.js';
import { Scroll } from '../parts/scroll.js';
import { Sql } from '../parts/sql.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const kinds = {
  action: { title: 'Actions', path: '/actions', list: '/overview', listName: 'Overview' },
  query: { title: 'Queries', path: '/queries', list: '/queries', listName: 'Queries' },
  error: { title: 'Errors', path: '/errors', list: '/errors', listName: 'Errors' },
  external: { title: 'Outgoing calls', path: '/services', list: '/services', listName: 'Services' },
  cache: { title: 'Caches', path: '/caches', list: '/services', listName: 'Services' },
};

// A glob that fits this text alone.
const exactly = text => text.replace(/[*?[\]]/g, character => `[${character}]`);

function Facts({ row }) {
  const facts = [['Application', row.application], ['Count', count(row.count)], ['Time', duration(row.total_us)], ['Average', duration(row.average_us)], ['Median', duration(row.p50_us)], ['p95', duration(row.p95_us)], ['p99', duration(row.p99_us)],
    ['Errors', `${count(row.errors)} (${share(row.errors, row.count)})`], ['At', row.place && placeText(row)], ['First seen', row.first_seen && time(row.first_seen)], ['Last seen', row.last_seen && time(row.last_seen)]];
  return html`<dl class="facts">${facts.filter(([, value]) => value).map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd>${value}</dd></div>`)}</dl>`;
}

function RelatedRows({ kind, rows, range }) {
  if (!rows?.length) return null;
  return html`<section><h2>${kinds[kind]?.title ?? kind}</h2><${Scroll} label=${kinds[kind]?.title ?? kind}><table><thead><tr><th>Name</th><th class="number">Requests</th><th class="number wide">Times in them</th><th class="number">Time</th><th class="number wide">p95 in one</th></tr></thead>
    <tbody>${rows.slice(0, 30).map(row => html`<tr key=${row.id}><td class="name"><a href=${address(`${kinds[kind].path}/${row.id}`, range)}>${kind === 'action' ? actionName(row.name) : kind === 'query' ? html`<code>${row.name}</code>` : row.name}</a></td>
      <td class="number">${count(row.count)}</td><td class="number wide">${row.statements ? count(row.statements) : '–'}</td><td class="number">${duration(row.total_us)}</td><td class="number wide">${duration(row.p95_us)}</td></tr>`)}</tbody></table><//></section>`;
}

function Examples({ row, range }) {
  const asked = { app: row.application, name: exactly(row.name), n: 10, ...range };
  const slowest = useQuestion('requests', { ...asked, sort: 'duration' }), newest = useQuestion('requests', asked);
  const list = (title, answer) => answer.data?.length > 0 && html`<section><h2>${title}</h2><table><tbody>${answer.data.map(request => html`<tr key=${request.id}><td><a href=${address(`/requests/${request.id}`)}>${time(request.time)}</a></td><td class="number">${duration(request.duration_ms * 1000)}</td>
    <td class="bar"><${LayerBar} entry=${request} /></td><td>${request.has_error && html`<span class="bad">Error</span>`}</td></tr>`)}</tbody></table></section>`;
  return html`<div class="columns">${list('Slowest requests', slowest)}${list('Newest requests', newest)}</div>`;
}

export const keyView = kind => function Key({ id, parameters }) {
  const range = rangeOf(parameters), { path, list, listName } = kinds[kind];
  const answer = useQuestion(`keys/${kind}/${encodeURIComponent(id)}`, range, 10000);
  const series = useQuestion('series', { by: kind, id, heat: 1, ...range }, 10000);
  const row = answer.data;
  const toRequests = (from, until, least, below) => address('/requests', { app: row.application, name: exactly(row.name), from, until, slower: least, faster: below });
  return html`<${State} answer=${answer.error ? answer : series.error ? series : !answer.data ? answer : series}>${row && series.data && html`
    <nav class="crumbs" aria-label="Path"><a href=${address(list, range)}>${listName}</a> › <span>${row.application}</span></nav>
    <div class="title"><h1 class="text">${kind === 'action' ? actionName(row.name) : kind === 'query' ? `${row.verb ?? 'Statement'} ${row.table ?? ''}` : row.name}</h1><${SumRange} path=${`${path}/${id}`} parameters=${parameters} /></div>
    ${kind === 'query' && html`<${Sql} text=${row.name} />`}
    ${row.finding && html`<div class="standsout"><b>Finding</b> ${row.finding}${row.suggestion && html`<div><b>Suggestion</b> <code>${row.suggestion}</code></div>`}</div>`}
    <${Facts} row=${row} />
    ${kind === 'action' && html`<div class="whereto"><${LayerBar} entry=${row} /><${LayerLegend} entry=${row} /></div>`}
    ${row.slowest_id > 0 && html`<p>Examples: <a href=${address(`/requests/${row.slowest_id}`)}>the slowest request</a>${row.newest_id > 0 && html`, <a href=${address(`/requests/${row.newest_id}`)}>the newest</a>`}</p>`}
    <${OverTime} series=${series.data} path=${`${path}/${id}`} parameters=${parameters} layered=${kind === 'action'} />
    ${kind === 'action' && html`<${HeatMap} points=${series.data.points.map(point => ({ ...point, at: Date.parse(point.at) }))} from=${Date.parse(series.data.from)} until=${Date.parse(series.data.until)} step=${series.data.step_ms} href=${toRequests} />`}
    ${Object.entries(row.related ?? {}).map(([name, rows]) => html`<${RelatedRows} key=${name} kind=${name} rows=${rows} range=${range} />`)}
    ${kind === 'action' && html`<${Examples} row=${row} range=${range} />`}`}<//>`;
};
