import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelReport;
import java.lang.invoke.MethodType;
import java.lang.reflect.Field;
import java.nio.charset.StandardCharsets;
import java.util.*;

// Reports and error reports as texts, both ways. Whatever is not set shows when it is written.
final class Reports {
    private static final byte UNTOUCHED = -77;
    private static final int MOST_SHOWN = 16;

    static Object create(Class<?> type) throws ReflectiveOperationException {
        Object made = type.getDeclaredConstructor().newInstance();
        for (Field field : type.getFields()) {
            if (field.getType() == boolean.class) {
                field.setBoolean(made, type == PovZelException.class);
            } else if (field.getType().isPrimitive()) {
                field.setByte(made, UNTOUCHED);
            }
        }
        return made;
    }

    // Sets fields from a text such as "objType=-1 valueType=7 valueString=new".
    static Object set(Object target, String fields) throws ReflectiveOperationException {
        for (String part : fields.split(" ")) {
            String[] sides = part.split("=", 2);
            Field field = target.getClass().getField(sides[0]);
            // Strings and the boxes of the numbers have a constructor from a text.
            Class<?> type = MethodType.methodType(field.getType()).wrap().returnType();
            field.set(target, type.getConstructor(String.class).newInstance(sides[1]));
        }
        return target;
    }

    // The fields that were written, "<bytes>", "[longs]", "[oops of reports]"; or its size. The oop
    // of null is 0.
    static String show(Object object) throws ReflectiveOperationException {
        if (object instanceof byte[] bytes) {
            return "<" + (bytes.length > MOST_SHOWN ? bytes.length
                    : new String(bytes, StandardCharsets.ISO_8859_1)) + ">";
        }
        if (object instanceof long[] longs) {
            return longs.length > MOST_SHOWN ? "[" + longs.length + "]"
                    : Arrays.toString(longs).replace(" ", "");
        }
        if (object instanceof PovZelReport[] reports) {
            return show(Arrays.stream(reports).mapToLong(r -> r == null ? 0 : r.oop).toArray());
        }
        if (!(object instanceof PovZelReport || object instanceof PovZelException)) {
            return String.valueOf(object);
        }
        Object fresh = create(object.getClass());
        String written = "";
        for (Field field : object.getClass().getFields()) {
            if (!Objects.equals(field.get(object), field.get(fresh))) {
                written += " " + field.getName() + "=" + show(field.get(object));
            }
        }
        return written.stripLeading();
    }
}
