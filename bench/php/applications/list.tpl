<html><title>{$title|escape}</title><table>
{foreach $rows as $row}
<tr class="{cycle values='odd,even'}"><td>{$row.name|escape|truncate:20}<td>{$row.price|string_format:"%.2f"}<td>{if $row.stock > 3}in stock{else}{$row.stock} left{/if}</tr>
{foreachelse}none
{/foreach}
</table></html>
