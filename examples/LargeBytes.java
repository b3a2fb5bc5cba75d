import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;
import java.util.Arrays;
import java.util.Random;
import java.util.function.LongConsumer;

/** Stores a large byte object, reads it back, and shows how far it is. */
public class LargeBytes {
    private static final int SIZE = 8 * 1024 * 1024;

    public static void main(String[] args) {
        byte[] bytes = new byte[SIZE];
        new Random(1).nextBytes(bytes);
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish");
                PovZelObject stored = session.newBytes(new byte[0])) {
            stored.setBytes(1, bytes, quarters("stored"));
            byte[] back = stored.bytes(quarters("read"));
            System.out.println(Arrays.equals(bytes, back) ? "It is the same." : "It differs!");
        }
    }

    /** Prints a line whenever another quarter has been moved. */
    private static LongConsumer quarters(String what) {
        long[] printed = {0};
        return done -> {
            long quarter = done * 4 / SIZE;
            if (quarter > printed[0]) {
                printed[0] = quarter;
                System.out.println(what + " " + quarter * 25 + "%");
            }
        };
    }
}
