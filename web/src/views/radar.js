// What stands in the way of later versions of PHP, by the version before which it must change; functions nobody calls.
import { apiUrl } from '../api.js';
import { useQuestion } from '../data.js';
import { count, fullTime, time } from '../format.js';
import { html } from '../html.js';
import { Download } from '../parts/copy.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address, go } from '../router.js';

const MOST = 1000; // places; an export has them all
const DAYS = ['7', '30', '90'];
const seen = { 'function in use': 'its function is called', 'not seen': 'not seen running' };

// Lines break behind slashes.
const Place = ({ of: { file, line } }) => html`<code>
  ${file.split('/').map((part, at) => html`${at > 0 && html`/<wbr />`}${part}`)}
  ${line > 0 && html`<wbr />:${line}`}</code>`;
const many = (number, one, more) => `${count(number)} ${number === 1 ? one : more}`;
const inDays = value => `${value} days`;
const ran = sites => count(sites.filter(site => site.last_run).length);

// One choice of the address; what the answer does not name stays chosen all the same.
function Choice({ label, name, parameters, otherwise = '', none, values, text = value => value }) {
  const chosen = parameters[name] || otherwise;
  const offered = !chosen || values.includes(chosen) ? values : [chosen, ...values];
  const chose = value => go(address('/radar', { ...parameters, [name]: value === otherwise ? '' : value }));
  return html`<label class="range">${label}
    <select name=${name} value=${chosen} onChange=${({ target }) => chose(target.value)}>
    ${none && html`<option value="">${none}</option>`}
    ${offered.map(value => html`<option key=${value} value=${value}>${text(value)}</option>`)}</select></label>`;
}

// How often it ran: processes tell of each place once an hour at most.
function Ran({ site: { run_reports: times, last_run: last, evidence } }) {
  if (!last) return html`<span class="dim">${seen[evidence]}</span>`;
  return html`<b title=${`last ${fullTime(last)}`}>${count(times)} ×</b>`;
}

function Site({ site, app }) {
  const within = site.function && html`<div class="dim">in ${site.function}</div>`;
  const effect = html`<div class=${site.effect === 'removed' ? 'bad' : 'dim'}>${site.effect}</div>`;
  return html`<tr><td class="name"><${Place} of=${site} />${within}</td>
    <td class="name"><code>${site.use}</code>${effect}</td>
    <td class="name wide">${site.what}</td><td class="name">${site.instead}</td>
    <td class="name"><${Ran} site=${site} /></td>
    <td class="wide" title=${`first seen ${fullTime(site.first)}`}>${time(site.last)}</td>
    <td class="name wide">${site.path || '–'}</td>${!app && html`<td class="name wide">${site.application}</td>`}</tr>`;
}

const of = app => !app && html`<th class="app wide">Application</th>`;

function Version({ version, sites, app }) {
  const title = `To change before PHP ${version}`;
  const sums = `${many(sites.length, 'place', 'places')}, ${ran(sites)} seen running`;
  return html`<section><h2>${title} <span class="dim">${sums}</span></h2>
    <${Scroll} label=${title}><table class="radar"><thead><tr><th class="place">Place</th><th class="use">Use</th>
      <th class="wide">What happens</th><th class="instead">Instead</th><th class="ran">Ran</th>
      <th class="when wide">Last seen</th><th class="example wide">Example</th>${of(app)}</tr></thead>
      <tbody>${sites.map((site, at) => html`<${Site} key=${at} site=${site} app=${app} />`)}</tbody></table><//>
    </section>`;
}

function Function({ row, app }) {
  return html`<tr><td class="name"><code>${row.name}</code></td><td class="name"><${Place} of=${row} /></td>
    <td class="wide">${time(row.first)}</td><td class="wide">${time(row.last)}</td>
    <td>${row.last_called ? time(row.last_called) : 'never'}</td>
    ${!app && html`<td class="name wide">${row.application}</td>`}</tr>`;
}

function Unused({ functions, more, days, app }) {
  const all = functions.length + more;
  const title = `Compiled, but not called for ${days} days`, no = 'none that has been known for so long';
  const sums = all ? `${many(all, 'function that needs', 'functions that need')} no migration` : no;
  return html`<section><h2>${title} <span class="dim">${sums}</span></h2>
    ${all > 0 && html`<${Scroll} label=${title}><table class="radar"><thead><tr><th class="place">Function</th>
      <th>Place</th><th class="when wide">Known since</th><th class="when wide">Last compiled</th>
      <th class="when">Last called</th>${of(app)}</tr></thead>
      <tbody>${functions.map((row, at) => html`<${Function} key=${at} row=${row} app=${app} />`)}</tbody></table><//>`}
    ${more > 0 && html`<p class="dim">and ${count(more)} more</p>`}</section>`;
}

function Sums({ sites, more, functions }) {
  const facts = [['Places', count(sites.length + more)], ['Seen running', ran(sites)],
    ['Files', count(new Set(sites.map(({ file }) => file)).size)], ['Functions not called', count(functions)]];
  return html`<dl class="facts big">
    ${facts.map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd><b>${value}</b></dd></div>`)}</dl>`;
}

function Found({ answer, days, app }) {
  const { sites, sites_left_out: more, unused_functions: functions } = answer;
  const moreFunctions = answer.unused_functions_left_out;
  const found = answer.versions.map(version => [version, sites.filter(site => site.version === version)]);
  return html`<${Sums} sites=${sites} more=${more} functions=${functions.length + moreFunctions} />
    <p class="dim">Processes tell of each place once an hour at most. “Ran” counts how often they told that it ran.</p>
    ${found.map(([version, rows]) => rows.length > 0 &&
      html`<${Version} key=${version} version=${version} sites=${rows} app=${app} />`)}
    ${more > 0 && html`<p class="dim">and ${many(more, 'more place', 'more places')}, which the exports have</p>`}
    <${Unused} functions=${functions} more=${moreFunctions} days=${days} app=${app} />`;
}

export function Radar({ parameters }) {
  const { app, to, days = '30' } = parameters;
  const answer = useQuestion('radar', { app, to, days, limit: MOST });
  const { sites = [], unused_functions: functions = [], applications = [], versions = [] } = answer.data ?? {};
  const names = applications.filter(name => name);
  const file = format => apiUrl('radar', { app, to, format });
  const empty = sites.length + functions.length === 0 && html`
    <p>Nothing found${app && ` in ${app}`} that stands in the way of ${to ? `PHP ${to}` : 'a later version of PHP'}.</p>
    <p>Agents report what their processes compile and run. <code>zqs.radar = 0</code> in
      applications.conf switches that off.</p>`;
  return html`<div class="title"><h1>Radar</h1>
      <${Choice} ...${{ parameters }} label="Application" name="app" none="all" values=${names} />
      <${Choice} ...${{ parameters }} label="To PHP" name="to" none="any version" values=${versions} />
      <${Choice} ...${{ parameters }} label="Not called for" name="days" otherwise="30" values=${DAYS} text=${inDays} />
      ${sites.length > 0 && html`<span class="actions">
        <${Download} href=${file('csv')} name="radar.csv">CSV<//>
        <${Download} href=${file('sarif')} name="radar.sarif">SARIF<//></span>`}
    </div>
    <${State} answer=${answer} empty=${empty}>
      ${answer.data && html`<${Found} answer=${answer.data} days=${days} app=${app} />`}<//>`;
}
