/* Reading the properties of an object without running anything of the script's, and without writing into it. */
#include "zqp_helper.h"

HashTable *zq_property_table(zval *object TSRMLS_DC)
{
	/* Handlers of other kinds build a table for the occasion, and some of them write into the object while at it: after
	 * DateTime's, the script finds properties that it never saw before. */
	if (!object || Z_TYPE_P(object) != IS_OBJECT || Z_OBJ_HT_P(object)->get_properties != zend_std_get_properties) {
		return NULL;
	}
	/* a class named in disable_classes makes objects with neither a table nor slots, although properties are declared:
	 * building the table crashes */
	const zend_object *self = zend_objects_get_address(object TSRMLS_CC);
	if (!self->properties && !self->properties_table && self->ce->default_properties_count) {
		return NULL;
	}
	return zend_std_get_properties(object TSRMLS_CC);
}
